// Events on their way to the consumers, and the end of a consumer whose sink fails.
//
// A temporary consumer lives as long as its client ([MS-WMI] 3.2.4.1.1): when a sink's Indicate returns an
// error, WMI cancels the operation, sends the final result WBEM_E_CALL_CANCELLED, and forgets it. A
// client that died answers every call through its sink's proxy with an error that says so; the final
// result could only fail the same way (or wait for a transport to give up), so such a sink is only released.
#include <objbase.h>

#include <algorithm>
#include <iterator>

#include "emulator/common/detached_thread.h"
#include "namespace.h"

namespace dorwex::emulator::wmi {

namespace {

// What a proxy answers when the process behind it has gone.
bool ConsumerGone(HRESULT failure) {
    const HRESULT gone[] = {RPC_E_DISCONNECTED, RPC_E_SERVER_DIED, RPC_E_SERVER_DIED_DNE, CO_E_OBJNOTCONNECTED,
                            HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE)};
    return std::find(std::begin(gone), std::end(gone), failure) != std::end(gone);
}

}  // namespace

// No lock is held while a sink is called: a consumer may take its time, or call the service back.
void Namespace::DeliverEvent(IWbemClassObject* event) {
    std::vector<IWbemObjectSink*> sinks;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& subscription : m_subscriptions) {
            if (!subscription.cancelling && MatchesQuery(event, subscription.query)) {
                subscription.sink->AddRef();
                sinks.push_back(subscription.sink);
            }
        }
    }
    for (auto* sink : sinks) {
        const HRESULT hr = sink->Indicate(1, &event);
        if (FAILED(hr)) {
            CancelFailedConsumer(sink, hr);
        }
        sink->Release();
    }
}

std::vector<Namespace::Subscription> Namespace::RemoveSubscriptions(IWbemObjectSink* sink) {
    std::vector<Subscription> removed;
    std::lock_guard<std::mutex> roles(m_roleLock);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto it = m_subscriptions.begin(); it != m_subscriptions.end();) {
            if (it->sink == sink) {
                removed.push_back(*it);
                it = m_subscriptions.erase(it);
            } else {
                ++it;
            }
        }
        m_lastActivity = GetTickCount();
    }
    IWbemEventProviderQuerySink* querySink = nullptr;
    if (!removed.empty() && m_eventProvider != nullptr && m_eventsProvided &&
        SUCCEEDED(m_eventProvider->QueryInterface(IID_IWbemEventProviderQuerySink, reinterpret_cast<void**>(&querySink)))) {
        for (const auto& subscription : removed) {
            querySink->CancelQuery(subscription.id);
        }
        querySink->Release();
    }
    return removed;
}

// The delivery may come from inside the provider's own Indicate, while the provider holds what it holds
// there; the cancellation tells the provider (CancelQuery) and waits for the role lock, so it runs on a
// thread of its own. Events come only from a loaded provider, and the first load pins this module, so the
// thread's code stays mapped.
void Namespace::CancelFailedConsumer(IWbemObjectSink* sink, HRESULT failure) {
    const auto mark = [this, sink](bool cancelling) {
        bool changed = false;
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto& subscription : m_subscriptions) {
            if (subscription.sink == sink && subscription.cancelling != cancelling) {
                subscription.cancelling = cancelling;
                changed = true;
            }
        }
        return changed;
    };
    if (!mark(true)) {
        return;  // cancelled already, or on its way
    }
    sink->AddRef();
    const bool started = StartDetachedThread([this, sink, failure] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        for (auto& subscription : RemoveSubscriptions(sink)) {
            if (!ConsumerGone(failure)) {
                subscription.sink->SetStatus(WBEM_STATUS_COMPLETE, WBEM_E_CALL_CANCELLED, nullptr, nullptr);
            }
            subscription.sink->Release();
        }
        sink->Release();
        m_serviceWake.notify_all();
        CoUninitialize();
    });
    if (!started) {
        // No thread to be had: the next event that fails the sink tries again.
        mark(false);
        sink->Release();
    }
}

}  // namespace dorwex::emulator::wmi
