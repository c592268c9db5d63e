// The one namespace the emulated WMI service holds (root\cimv2): its classes, read from the provider's MOF,
// the provider registered for them, loaded as WMI loads it, and the event subscriptions of clients.
#pragma once

#include <windows.h>
#include <wbemcli.h>
#include <wbemprov.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "class_object.h"

namespace dorwex::emulator::wmi {

// One condition of a WQL WHERE clause: property = value (or <>), all joined by AND.
struct QueryCondition {
    std::wstring property;
    std::wstring value;  // compared as text, without regard to case
    bool equal = true;
};

struct Query {
    std::wstring className;
    std::vector<std::wstring> properties;  // the selected properties; empty for "*"
    std::vector<QueryCondition> conditions;
};

// "SELECT * | a, b FROM class [WHERE a = 'x' AND b <> 2]"; false when the text is not such a query.
bool ParseQuery(const wchar_t* text, Query& query_out);
bool MatchesQuery(IWbemClassObject* object, const Query& query);

class Namespace {
public:
    static Namespace& Get();

    // Reads the MOF once; the error text when it could not be read.
    HRESULT Load();
    std::wstring LoadError();
    std::shared_ptr<const ClassDefinition> FindClass(const std::wstring& name);

    // The provider's IWbemServices, loaded and initialised on first use (with a reference for the caller).
    HRESULT Provider(IWbemServices** provider_out);
    bool ProviderLoaded();
    // The Name of the registered __Win32Provider, which WMI reports as ProviderName in a status.
    std::wstring ProviderName();

    // Event consumers. The first one makes the provider start its events (ProvideEvents); each has its
    // query registered with the provider (NewQuery) until it is cancelled (CancelQuery).
    HRESULT Subscribe(const wchar_t* query, IWbemObjectSink* sink);
    HRESULT Unsubscribe(IWbemObjectSink* sink);
    void DeliverEvent(IWbemClassObject* event);
    size_t SubscriptionCount();

private:
    Namespace() = default;
    HRESULT LoadLocked();

    struct Subscription {
        ULONG id;
        std::wstring text;
        Query query;
        IWbemObjectSink* sink;
    };

    std::mutex m_lock;
    bool m_loaded = false;
    HRESULT m_loadResult = S_OK;
    std::wstring m_loadError;
    std::vector<std::shared_ptr<ClassDefinition>> m_classes;
    CLSID m_providerClsid{};
    std::wstring m_providerName;
    IWbemServices* m_provider = nullptr;
    IWbemObjectSink* m_eventSink = nullptr;  // what the provider indicates events to
    bool m_eventsProvided = false;
    std::vector<Subscription> m_subscriptions;
    ULONG m_nextQueryId = 1;
};

// An IWbemServices of the namespace: what ConnectServer hands to clients and Initialize to the provider.
HRESULT CreateServices(REFIID riid, void** ppv);

}  // namespace dorwex::emulator::wmi
