#include "device_description.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace dorwex::emulator {

namespace {

std::string_view Trim(std::string_view text) {
    const char* const blanks = " \t\r\n";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

std::vector<std::string> SplitList(std::string_view text) {
    std::vector<std::string> items;
    while (!text.empty()) {
        const auto comma = text.find(',');
        const auto item = Trim(text.substr(0, comma));
        if (!item.empty()) {
            items.emplace_back(item);
        }
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    return items;
}

bool ParseUnsigned(std::string_view text, std::uint64_t& value_out) {
    const std::string copy(Trim(text));
    if (copy.empty() || copy[0] == '-') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(copy.c_str(), &end, 0);
    if (errno != 0 || end == copy.c_str() || *end != '\0') {
        return false;
    }
    value_out = value;
    return true;
}

// yes/no, true/false, on/off, 1/0, in any case.
bool ParseSwitch(std::string_view text, bool& value_out) {
    std::string lower(Trim(text));
    for (auto& c : lower) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    if (lower == "yes" || lower == "true" || lower == "on" || lower == "1") {
        value_out = true;
        return true;
    }
    if (lower == "no" || lower == "false" || lower == "off" || lower == "0") {
        value_out = false;
        return true;
    }
    return false;
}

// "0x800710D2" or "0x800710D2 x 2"
bool ParseFault(std::string_view text, FaultDescription& fault_out) {
    std::string_view code = text;
    std::string_view times;
    const auto x = text.find_first_of("xX", 2);
    if (x != std::string_view::npos) {
        code = text.substr(0, x);
        times = text.substr(x + 1);
    }
    std::uint64_t value = 0;
    if (!ParseUnsigned(code, value) || value > 0xFFFFFFFFull) {
        return false;
    }
    fault_out.hresult = static_cast<std::uint32_t>(value);
    fault_out.count = -1;
    if (x != std::string_view::npos) {
        std::uint64_t count = 0;
        if (!ParseUnsigned(times, count) || count > 1000000) {
            return false;
        }
        fault_out.count = static_cast<std::int64_t>(count);
    }
    return true;
}

// The numeric entries of [device]: the range each takes and what its error says it needs.
struct NumberEntry {
    const char* name;
    std::uint64_t least, most;
    std::uint32_t DeviceDescription::*field;
    const char* need;
};

const NumberEntry* FindNumber(const std::string& name) {
    static const NumberEntry kNumbers[] = {
        {"short_read", 1, 0xFFFFFFFFull, &DeviceDescription::shortRead, "a positive byte count"},
        {"latency_us", 0, 10000000, &DeviceDescription::latencyMicroseconds,
         "a count of microseconds up to 10000000"},
        {"open_ms", 0, 60000, &DeviceDescription::openMilliseconds, "a count of milliseconds up to 60000"},
        {"object_cost_us", 0, 1000000, &DeviceDescription::objectCostMicroseconds,
         "a count of microseconds up to 1000000"},
        {"transfer_mbps", 1, 100000, &DeviceDescription::transferMegabytesPerSecond, "a rate in MB/s from 1 to 100000"},
    };
    for (const auto& entry : kNumbers) {
        if (name == entry.name) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

ParseResult ParseDeviceDescription(std::string_view text) {
    ParseResult result;
    DeviceDescription& device = result.device;
    std::string section;
    std::size_t lineNumber = 0;
    auto error = [&](const std::string& what) {
        result.errors.push_back("line " + std::to_string(lineNumber) + ": " + what);
    };

    std::vector<std::uint32_t DeviceDescription::*> given;  // the numbers the file sets
    bool usb2Phone = false;

    // A UTF-8 byte order mark, as editors on Windows write it.
    if (text.substr(0, 3) == "\xEF\xBB\xBF") {
        text.remove_prefix(3);
    }
    while (!text.empty()) {
        ++lineNumber;
        const auto newline = text.find('\n');
        const std::string_view line = Trim(text.substr(0, newline));
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
        if (line.empty() || line[0] == '#' || line[0] == ';') {
            continue;
        }
        if (line.front() == '[') {
            if (line.back() != ']') {
                error("unterminated section name");
                continue;
            }
            section = std::string(Trim(line.substr(1, line.size() - 2)));
            if (section == "storage") {
                device.storages.emplace_back();
            } else if (section != "device" && section != "registry" && section != "fault") {
                error("unknown section [" + section + "]");
            }
            continue;
        }
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) {
            error("expected name = value");
            continue;
        }
        const std::string name(Trim(line.substr(0, equals)));
        const std::string value(Trim(line.substr(equals + 1)));
        if (name.empty()) {
            error("empty name");
            continue;
        }
        if (section == "device") {
            if (name == "id") {
                device.id = value;
            } else if (name == "manufacturer") {
                device.manufacturer = value;
            } else if (name == "friendly_name") {
                device.friendlyName = value;
            } else if (name == "description") {
                device.description = value;
            } else if (name == "categories") {
                device.categories = SplitList(value);
            } else if (const NumberEntry* entry = FindNumber(name); entry != nullptr) {
                std::uint64_t number = 0;
                if (!ParseUnsigned(value, number) || number < entry->least || number > entry->most) {
                    error(std::string(entry->name) + " needs " + entry->need);
                } else {
                    device.*(entry->field) = static_cast<std::uint32_t>(number);
                    given.push_back(entry->field);
                }
            } else if (name == "cost_profile") {
                if (value == "usb2_phone") {
                    usb2Phone = true;
                } else {
                    error("cost_profile needs usb2_phone");
                }
            } else if (name == "minimal_driver" || name == "strict_creation" || name == "bulk_properties") {
                bool& mode = name == "minimal_driver"    ? device.minimalDriver
                             : name == "strict_creation" ? device.strictCreation
                                                         : device.bulkProperties;
                if (!ParseSwitch(value, mode)) {
                    error(name + " needs yes or no");
                }
            } else if (name == "write_access") {
                if (value == "allowed" || value == "denied") {
                    device.writeDenied = value == "denied";
                } else {
                    error("write_access needs allowed or denied");
                }
            } else if (name.rfind("WPD_", 0) == 0) {
                device.properties[name] = value;
            } else {
                error("unknown device entry " + name);
            }
        } else if (section == "registry") {
            device.registry[name] = value;
        } else if (section == "storage") {
            StorageDescription& storage = device.storages.back();
            if (name == "object_id") {
                storage.objectId = value;
            } else if (name == "name") {
                storage.name = value;
            } else if (name == "persistent_unique_id") {
                storage.persistentUniqueId = value;
            } else if (name == "description") {
                storage.description = value;
            } else if (name == "directory") {
                storage.directory = value;
            } else {
                error("unknown storage entry " + name);
            }
        } else if (section == "fault") {
            FaultDescription fault;
            if (!ParseFault(value, fault)) {
                error("fault " + name + " needs an HRESULT, optionally followed by x COUNT");
            } else {
                device.faults[name] = fault;
            }
        } else {
            error("entry outside a section");
        }
    }
    // The profile fills in what the file leaves out, wherever in the section it stands.
    if (usb2Phone) {
        const std::pair<std::uint32_t DeviceDescription::*, std::uint32_t> profile[] = {
            {&DeviceDescription::latencyMicroseconds, kUsb2PhoneLatencyMicroseconds},
            {&DeviceDescription::objectCostMicroseconds, kUsb2PhoneObjectCostMicroseconds},
            {&DeviceDescription::transferMegabytesPerSecond, kUsb2PhoneMegabytesPerSecond}};
        for (const auto& [field, figure] : profile) {
            if (std::find(given.begin(), given.end(), field) == given.end()) {
                device.*field = figure;
            }
        }
    }
    lineNumber = 0;
    if (device.id.empty()) {
        result.errors.push_back("the description has no device id");
    }
    for (std::size_t i = 0; i < device.storages.size(); ++i) {
        if (device.storages[i].objectId.empty()) {
            result.errors.push_back("storage " + std::to_string(i + 1) + " has no object_id");
        }
    }
    return result;
}

}  // namespace dorwex::emulator
