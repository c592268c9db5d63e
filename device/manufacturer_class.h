// The manufacturer class of a portable device, decided from the maker text that WPD reports. Pure logic,
// no Windows headers: it is built into the provider and tested natively.
#pragma once

#include <cstdint>
#include <string_view>

namespace dorwex {

// Every content operation and the eject choose their variant by this class.
enum class Manufacturer : std::int32_t {
    UNKNOWN = 1,
    LOGICALDISK = 2,  // a USB storage stick that only shows up through WPD: never managed as a device
    ANDROID = 3,
    WINDOWS = 4,
    BLACKBERRY = 5,
    APPLE = 6,
};

struct ManufacturerMatch {
    Manufacturer manufacturer;
    bool defaulted;  // no rule matched; the class is the ANDROID default
};

// Classifies a maker text (UTF-16, as reported). Rules, first match wins, on an upper-case copy:
//   "APPLE" -> APPLE; "SAMSUNG" or "ANDROID" -> ANDROID; "NOKIA", "WINDOWS" or "HP" -> WINDOWS;
//   "KINGSTON", "APRICORN", "IMATION", "IRONKEY" or "KANGURU" -> LOGICALDISK;
//   the text trimmed of white space is exactly "DL" -> LOGICALDISK; "DATALOCKER" -> LOGICALDISK;
//   anything else -> ANDROID (defaulted).
// All but the "DL" rule are substring tests, so any maker containing "HP" is WINDOWS unless an earlier
// rule matched ("Hewlett-Packard" does not contain it).
// Upper-casing is locale-independent (ASCII letters only): every keyword is ASCII, and a host running
// under, say, a Turkish locale must still see "Kingston" as KINGSTON.
ManufacturerMatch ClassifyManufacturer(std::u16string_view maker);

}  // namespace dorwex
