// One connection to a device, opened by IPortableDevice::Open. Every object obtained through it (content,
// properties and bulk reads, resources, capabilities, object enumerators, data streams) holds the session and
// ceases to function once IPortableDevice::Close ends it ("any Windows Portable Devices objects hosted on this
// device will cease to function"). Closing one session leaves the other sessions of the same device alone;
// Open after Close starts a new session.
#pragma once

#include <atomic>
#include <memory>

#include "emulated_api.h"
#include "emulated_device.h"

namespace dorwex::emulator {

class DeviceSession {
public:
    // writable: the session was opened with write access (GENERIC_WRITE in WPD_CLIENT_DESIRED_ACCESS).
    DeviceSession(std::shared_ptr<EmulatedDevice> device, bool writable)
        : m_device(std::move(device)), m_writable(writable) {}

    EmulatedDevice& Device() const { return *m_device; }
    const std::shared_ptr<EmulatedDevice>& SharedDevice() const { return m_device; }

    // Called by IPortableDevice::Close, also when the last reference to it goes.
    void End() { m_ended = true; }

    // S_OK while the session is open; the error of an object hosted on a closed session otherwise. For calls
    // the runtime answers on its own (an enumerator's Next, queueing a bulk read).
    HRESULT Attached() const { return m_ended ? kSessionClosed : S_OK; }
    // A call answered without reaching the device: the session, the device's presence, the fault a test set.
    HRESULT LocalCall(const char* call) const {
        if (m_ended) {
            return kSessionClosed;
        }
        return m_device->Removed() ? kDeviceGone : m_device->Fault(call);
    }
    // A call the device itself answers: as LocalCall, and one request.
    HRESULT DeviceCall(const char* call) const {
        if (m_ended) {
            return kSessionClosed;
        }
        if (m_device->Removed()) {
            return kDeviceGone;
        }
        m_device->Request();
        return m_device->Fault(call);
    }
    // A call that would change content. A session opened without write access refuses it with
    // E_ACCESSDENIED before it reaches the device (the I/O manager checks the access of the handle a
    // command comes through); the refusal is counted as a call but is no request.
    HRESULT WriteAccess(const char* call) const {
        if (m_ended) {
            return kSessionClosed;
        }
        if (!m_writable) {
            m_device->CountCall(call);
            return E_ACCESSDENIED;
        }
        return S_OK;
    }
    // A call that changes content and that the device answers: WriteAccess, then as DeviceCall.
    HRESULT WriteCall(const char* call) const {
        const HRESULT hr = WriteAccess(call);
        return FAILED(hr) ? hr : DeviceCall(call);
    }
    // The session and the device's presence, without counting a call.
    HRESULT Reachable() const {
        if (m_ended) {
            return kSessionClosed;
        }
        return m_device->Removed() ? kDeviceGone : S_OK;
    }

private:
    const std::shared_ptr<EmulatedDevice> m_device;
    const bool m_writable;
    std::atomic<bool> m_ended{false};
};

}  // namespace dorwex::emulator
