// Reads the subset of the Managed Object Format that the provider's MOFs use: #pragma namespace, class
// declarations with qualifiers, properties and methods, "instance of" blocks with aliases, and the
// #pragma deleteclass / deleteinstance commands of an uninstall MOF. The emulated WMI service builds its
// classes and its provider registration from it and compiles with it; tests compare it with the schema
// constants. Pure logic, no Windows headers.
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

// #pragma deleteclass("Class", FAIL|NOFAIL) or deleteinstance("Class.key=value", FAIL|NOFAIL).
struct Deletion {
    enum class Kind { Class, Instance };
    Kind kind = Kind::Class;
    std::string target;         // the class name or the instance's object path, unescaped
    bool failIfMissing = true;  // FAIL: the compile stops when there is nothing to delete
};

// The statements in the order of the text, as a compiler applies them: the kind, the index into the
// document's list of that kind, the lines it spans, and the namespace in force.
struct Statement {
    enum class Kind { Class, Instance, Deletion };
    Kind kind = Kind::Class;
    std::size_t index = 0;
    std::size_t firstLine = 0;
    std::size_t lastLine = 0;
    std::string ns;
};

struct Document {
    std::string ns;  // from the last #pragma namespace, e.g. "\\.\root\cimv2"
    std::vector<Class> classes;
    std::vector<Instance> instances;
    std::vector<Deletion> deletions;
    std::vector<Statement> statements;

    const Class* FindClass(std::string_view name) const;
};

struct ReadResult {
    Document document;
    std::string error;  // "line N: ..." when the text could not be read; the document is then partial
    std::size_t errorLine = 0;
};

ReadResult Read(std::string_view text);

}  // namespace dorwex::mof
