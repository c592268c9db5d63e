// The property record of a companion-managed device (a BlackBerry): named texts such as "BBPIN", "IMEI"
// and "DHCPServer". Pure logic, no Windows headers.
#pragma once

#include <map>
#include <string>

namespace dorwex {

class CompanionRecord {
public:
    void Set(const std::wstring& name, const std::wstring& value) { m_values[name] = value; }
    // The value, or null when the record does not have it.
    const std::wstring* Find(const std::wstring& name) const {
        const auto it = m_values.find(name);
        return it == m_values.end() ? nullptr : &it->second;
    }
    bool Empty() const { return m_values.empty(); }
    const std::map<std::wstring, std::wstring>& Values() const { return m_values; }

private:
    std::map<std::wstring, std::wstring> m_values;
};

}  // namespace dorwex
