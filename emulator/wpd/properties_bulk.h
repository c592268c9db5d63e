// Bulk property reads (IPortableDevicePropertiesBulk) of one device, as the portable-device API documents
// them: an operation is queued, runs only after Start, and reports to the caller's callback on a thread of
// its own: OnStart, then OnProgress one or more times, then OnEnd with the outcome. The whole operation is
// one request to the device, as an MTP GetObjectPropList is.
//
// What the documentation allows the stand-in also does, so that a client relying on more fails here: the
// results come in several OnProgress calls, not in enumeration order, and one object's properties may be
// split over two calls.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "emulated_device.h"

namespace dorwex::emulator {

class DeviceSession;

class BulkPropertyReads {
public:
    // Operations run on the session's device and end once the session is closed.
    explicit BulkPropertyReads(std::shared_ptr<DeviceSession> session);
    ~BulkPropertyReads();

    HRESULT QueueByObjectList(IPortableDevicePropVariantCollection* objectIds, IPortableDeviceKeyCollection* keys,
                              IPortableDevicePropertiesBulkCallback* callback, GUID* context_out);
    HRESULT QueueByObjectFormat(REFGUID format, LPCWSTR parentId, DWORD depth, IPortableDeviceKeyCollection* keys,
                                IPortableDevicePropertiesBulkCallback* callback, GUID* context_out);
    HRESULT Start(REFGUID context);
    HRESULT Cancel(REFGUID context);

    struct Operation;

private:
    HRESULT Queue(std::shared_ptr<Operation> operation, IPortableDeviceKeyCollection* keys,
                  IPortableDevicePropertiesBulkCallback* callback, GUID* context_out);

    std::shared_ptr<DeviceSession> m_session;
    std::mutex m_lock;
    std::vector<std::shared_ptr<Operation>> m_operations;  // queued or running
};

}  // namespace dorwex::emulator
