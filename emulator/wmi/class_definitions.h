// Class definitions of the emulated namespace built from a MOF's declarations, and WMI's system classes.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <memory>
#include <string>
#include <vector>

#include "class_object.h"
#include "mof_reader.h"

namespace dorwex::emulator::wmi {

std::wstring Widen(const std::string& text);  // from UTF-8
std::vector<QualifierDefinition> Qualifiers(const mof::Qualifiers& declared);
// A property as a MOF declares it; its qualifiers also hold its CIM type as text, as WMI adds it.
PropertyDefinition DeclaredProperty(const std::string& name, const std::string& type, const mof::Qualifiers& declared);
// The system classes the provider and its registration rely on, parents before their children.
std::vector<std::shared_ptr<ClassDefinition>> SystemClasses();

}  // namespace dorwex::emulator::wmi
