// Reads the subset of the Managed Object Format that the provider's MOF uses: #pragma namespace, class
// declarations with qualifiers, properties and methods, and "instance of" blocks with aliases. The
// emulated WMI service builds its classes and its provider registration from it; tests compare it with the
// schema constants. Pure logic, no Windows headers.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace dorwex::mof {

// One qualifier as written: [name] is a flag (true), [name(argument)] carries a value.
struct Qualifier {
    enum class Kind { Flag, String, Number, Identifier };
    std::string name;
    std::string value;
    Kind kind = Kind::Flag;
};
using Qualifiers = std::vector<Qualifier>;

// The qualifier of that name (names are case-blind), or null.
const Qualifier* FindQualifier(const Qualifiers& qualifiers, std::string_view name);

struct Parameter {
    std::string name;
    std::string type;  // "string", "uint32", "boolean", ...
    bool in = false;
    bool out = false;
    Qualifiers qualifiers;
};

struct Method {
    std::string name;
    std::string returnType;
    std::vector<Parameter> parameters;
    bool isStatic = false;
    bool implemented = false;
    Qualifiers qualifiers;
};

struct Property {
    std::string name;
    std::string type;
    bool key = false;
    Qualifiers qualifiers;
};

struct Class {
    std::string name;
    std::string superclass;
    std::string provider;  // from [provider("...")]
    bool dynamic = false;
    Qualifiers qualifiers;
    std::vector<Property> properties;
    std::vector<Method> methods;
};

// A value of an "instance of" block: a text (strings, numbers, TRUE/FALSE, $alias) or a list of texts.
struct Value {
    std::string text;
    std::vector<std::string> list;
    bool isList = false;
    bool isAlias = false;
};

struct Instance {
    std::string className;
    std::string alias;
    std::map<std::string, Value> values;
};

struct Document {
    std::string ns;  // from #pragma namespace, e.g. "\\.\root\cimv2"
    std::vector<Class> classes;
    std::vector<Instance> instances;

    const Class* FindClass(std::string_view name) const;
};

struct ReadResult {
    Document document;
    std::string error;  // "line N: ..." when the text could not be read; the document is then partial
};

ReadResult Read(std::string_view text);

}  // namespace dorwex::mof
