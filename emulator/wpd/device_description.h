// The text form of an emulated portable device. Tests write one such file per device; the emulated
// portable-device stack reads them. Pure logic, no Windows headers, so the parser is also tested natively.
//
//   # comment
//   [device]
//   id = \\?\usb#vid_04e8&pid_6860#r58m#{6ac27878-a6fa-4155-ba85-f98f491d4f33}
//   manufacturer = SAMSUNG Electronics
//   friendly_name = Galaxy S9
//   description = SM-G960F
//   categories = storage, still_image_capture, sms
//   short_read = 7                          (each IStream::Read returns at most 7 bytes)
//   minimal_driver = yes                    (events carry only the event id, the device id and the
//                                            object's persistent unique id)
//   strict_creation = yes                   (a new file object needs its content type and format)
//   latency_us = 1000                       (each request that reaches the device takes this long;
//                                            default 0)
//   open_ms = 1000                          (opening a session takes this long, as an MTP OpenSession
//                                            does; default 0)
//   object_cost_us = 20                     (each object an enumeration returns or a property read
//                                            covers adds this long, as GetObjectHandles and
//                                            GetObjectPropList do; default 0)
//   transfer_mbps = 30                      (object data moves at this many MB/s (10^6 bytes), as
//                                            GetObject/SendObject do; default 0: no charge)
//   cost_profile = usb2_phone               (latency_us 1000, object_cost_us 20, transfer_mbps 30 where the
//                                            file does not give them: a USB 2.0 phone)
//   bulk_properties = no                    (the device offers no IPortableDevicePropertiesBulk;
//                                            default yes)
//   write_access = denied                   (as under a policy that denies writing to portable devices:
//                                            Open asking for write access, as it does by default, answers
//                                            E_ACCESSDENIED; Open for GENERIC_READ only works; default
//                                            allowed)
//   WPD_DEVICE_SERIAL_NUMBER = R58M123      (any WPD_DEVICE_* or WPD_OBJECT_* key of the root object)
//   [registry]                              (what IPortableDeviceManager::GetDeviceProperty answers)
//   BBPIN = 2A3B4C5D
//   [storage]                               (one section per storage, in order)
//   object_id = s10001
//   name = Phone
//   persistent_unique_id = {PUID-PHONE}
//   description = Internal shared storage
//   directory = phone                       (relative to the file's directory, or absolute)
//   [fault]                                 (call = HRESULT, optionally "x N" for the first N calls only)
//   Open = 0x80070005
//   GetFunctionalObjects = 0x800710D2 x 2
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace dorwex::emulator {

// The costs of a USB 2.0 phone (cost_profile = usb2_phone).
constexpr std::uint32_t kUsb2PhoneLatencyMicroseconds = 1000;
constexpr std::uint32_t kUsb2PhoneObjectCostMicroseconds = 20;
constexpr std::uint32_t kUsb2PhoneMegabytesPerSecond = 30;

struct StorageDescription {
    std::string objectId;
    std::string name;
    std::string persistentUniqueId;
    std::string description;
    std::string directory;
};

// A call made to fail: every time, or only the first `count` times.
struct FaultDescription {
    std::uint32_t hresult = 0;
    std::int64_t count = -1;  // -1: every call
};

struct DeviceDescription {
    std::string id;
    std::string manufacturer;
    std::string friendlyName;
    std::string description;
    std::vector<std::string> categories;  // names such as "storage", "sms"
    std::uint32_t shortRead = 0;          // 0: reads are not shortened
    bool minimalDriver = false;           // events carry only what every driver must send
    bool strictCreation = false;          // new files must name their content type and format
    std::uint32_t latencyMicroseconds = 0;  // time each request to the device takes
    std::uint32_t openMilliseconds = 0;     // time opening a session takes
    std::uint32_t objectCostMicroseconds = 0;  // time each object in an enumeration or property read adds
    std::uint32_t transferMegabytesPerSecond = 0;  // data rate of object streams; 0: no charge
    bool bulkProperties = true;           // IPortableDevicePropertiesBulk is offered
    bool writeDenied = false;             // sessions with write access are refused
    std::map<std::string, std::string> properties;  // WPD key name -> value text
    std::map<std::string, std::string> registry;    // device property name -> value
    std::vector<StorageDescription> storages;
    std::map<std::string, FaultDescription> faults;  // call name -> fault
};

struct ParseResult {
    DeviceDescription device;
    std::vector<std::string> errors;  // "line N: ..." for each line that could not be used
};

// Parses UTF-8 text. A description without an id is reported as an error.
ParseResult ParseDeviceDescription(std::string_view text);

}  // namespace dorwex::emulator
