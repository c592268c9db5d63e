// The provider's MOF declares exactly what the schema constants in code say.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "emulator/wmi/mof_reader.h"
#include "emulator/wmi/wbem_path.h"
#include "wmi/schema.h"

namespace {

namespace schema = dorwex::schema;

std::string Narrow(const wchar_t* text) {
    std::string narrow;
    for (; *text != 0; ++text) {
        narrow.push_back(static_cast<char>(*text));
    }
    return narrow;
}

const char* MofType(schema::ValueType type) {
    switch (type) {
    case schema::ValueType::Boolean:
        return "boolean";
    case schema::ValueType::UInt32:
        return "uint32";
    default:
        return "string";
    }
}

dorwex::mof::Document ReadMof(const char* path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    const auto result = dorwex::mof::Read(text.str());
    EXPECT_EQ(result.error, "") << path;
    return result.document;
}

dorwex::mof::Document ReadProviderMof() {
    return ReadMof(DORWEX_PROVIDER_MOF);
}

std::wstring Widen(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

TEST(SchemaAndMof, ProviderRegistration) {
    const auto mof = ReadProviderMof();
    EXPECT_EQ(mof.ns, "\\\\.\\root\\cimv2");
    std::map<std::string, const dorwex::mof::Instance*> byClass;
    for (const auto& instance : mof.instances) {
        byClass[instance.className] = &instance;
    }
    ASSERT_TRUE(byClass.count("__Win32Provider"));
    const auto& provider = *byClass["__Win32Provider"];
    EXPECT_EQ(provider.values.at("Name").text, Narrow(schema::kProviderName));
    EXPECT_EQ(provider.values.at("ClsId").text, DORWEX_PROVIDER_CLSID);
    for (const char* registration :
         {"__InstanceProviderRegistration", "__MethodProviderRegistration", "__EventProviderRegistration"}) {
        ASSERT_TRUE(byClass.count(registration)) << registration;
        const auto& value = byClass[registration]->values.at("Provider");
        EXPECT_TRUE(value.isAlias);
        EXPECT_EQ(value.text, provider.alias);
    }
    EXPECT_EQ(byClass["__EventProviderRegistration"]->values.at("EventQueryList").list,
              std::vector<std::string>{"select * from " + Narrow(schema::kClassWPDEvent)});
}

TEST(SchemaAndMof, DeviceClassPropertiesAndMethods) {
    const auto mof = ReadProviderMof();
    const auto* wpd = mof.FindClass(Narrow(schema::kClassWPD));
    ASSERT_NE(wpd, nullptr);
    EXPECT_TRUE(wpd->dynamic);
    EXPECT_EQ(wpd->provider, Narrow(schema::kProviderName));
    ASSERT_EQ(wpd->properties.size(), schema::kWPDPropertyCount);
    for (std::size_t i = 0; i < schema::kWPDPropertyCount; ++i) {
        EXPECT_EQ(wpd->properties[i].name, Narrow(schema::kWPDProperties[i].name));
        EXPECT_EQ(wpd->properties[i].type, MofType(schema::kWPDProperties[i].type));
        EXPECT_EQ(wpd->properties[i].key, wpd->properties[i].name == Narrow(schema::kKeyProperty));
    }
    ASSERT_EQ(wpd->methods.size(), schema::kWPDMethodCount);
    for (std::size_t i = 0; i < schema::kWPDMethodCount; ++i) {
        const auto& method = wpd->methods[i];
        const auto& expected = schema::kWPDMethods[i];
        SCOPED_TRACE(method.name);
        EXPECT_EQ(method.name, Narrow(expected.name));
        EXPECT_EQ(method.returnType, "string") << "ReturnValue is a string";
        // Clients call every method on the class path; WMI runs a method there only when it is static, and
        // runs none without the implemented qualifier.
        EXPECT_TRUE(method.isStatic);
        EXPECT_TRUE(method.implemented);
        ASSERT_EQ(method.parameters.size(), expected.inputCount);
        for (std::size_t p = 0; p < expected.inputCount; ++p) {
            EXPECT_EQ(method.parameters[p].name, Narrow(expected.inputs[p].name));
            EXPECT_EQ(method.parameters[p].type, MofType(expected.inputs[p].type));
            EXPECT_TRUE(method.parameters[p].in);
        }
    }
}

TEST(SchemaAndMof, EventClass) {
    const auto mof = ReadProviderMof();
    const auto* event = mof.FindClass(Narrow(schema::kClassWPDEvent));
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->superclass, "__ExtrinsicEvent");
    // An extrinsic event class has no instances: no instance provider is named for it.
    EXPECT_FALSE(event->dynamic);
    EXPECT_TRUE(event->provider.empty());
    ASSERT_EQ(event->properties.size(), schema::kWPDEventPropertyCount);
    for (std::size_t i = 0; i < schema::kWPDEventPropertyCount; ++i) {
        EXPECT_EQ(event->properties[i].name, Narrow(schema::kWPDEventProperties[i]));
        EXPECT_EQ(event->properties[i].type, "string");
    }
}

// What the installer compiles on removal (and to roll back a failed installation) deletes every class
// and every registration the provider's MOF declares, classes first, the provider itself last.
TEST(SchemaAndMof, UninstallMofDeletesWhatTheMofDeclares) {
    const auto mof = ReadProviderMof();
    const auto uninstall = ReadMof(DORWEX_UNINSTALL_MOF);
    using Deletion = dorwex::mof::Deletion;
    EXPECT_EQ(uninstall.ns, mof.ns);
    EXPECT_TRUE(uninstall.classes.empty());
    EXPECT_TRUE(uninstall.instances.empty());
    for (const auto& declared : mof.classes) {
        const auto deletion = std::find_if(uninstall.deletions.begin(), uninstall.deletions.end(), [&](const Deletion& d) {
            return d.kind == Deletion::Kind::Class && d.target == declared.name;
        });
        ASSERT_NE(deletion, uninstall.deletions.end()) << "class " << declared.name << " is not deleted";
        EXPECT_FALSE(deletion->failIfMissing) << "a machine where the class never arrived stops the removal";
    }
    const auto& provider = *std::find_if(mof.instances.begin(), mof.instances.end(),
                                         [](const auto& i) { return i.className == "__Win32Provider"; });
    const std::wstring providerPath = L"__Win32Provider.Name=\"" + Widen(provider.values.at("Name").text) + L"\"";
    std::vector<std::string> deletedInstances;
    for (const auto& deletion : uninstall.deletions) {
        if (deletion.kind != Deletion::Kind::Instance) {
            continue;
        }
        EXPECT_FALSE(deletion.failIfMissing) << deletion.target;
        const auto path = dorwex::emulator::wmi::ParseWbemPath(Widen(deletion.target));
        ASSERT_TRUE(path) << deletion.target << " is no object path";
        ASSERT_EQ(path->keys.size(), 1u) << deletion.target;
        // The provider by its name, each registration by its reference to the provider.
        const std::wstring expected =
            path->className == L"__Win32Provider" ? Widen(provider.values.at("Name").text) : providerPath;
        EXPECT_EQ(path->keys[0].text, expected) << deletion.target;
        deletedInstances.emplace_back(path->className.begin(), path->className.end());
    }
    for (const auto& instance : mof.instances) {
        EXPECT_NE(std::find(deletedInstances.begin(), deletedInstances.end(), instance.className), deletedInstances.end())
            << instance.className << " is not deleted";
    }
    ASSERT_FALSE(uninstall.statements.empty());
    const auto& last = uninstall.deletions[uninstall.statements.back().index];
    EXPECT_EQ(last.target.rfind("__Win32Provider.", 0), 0u) << "the provider goes last, after what refers to it";
    EXPECT_EQ(uninstall.deletions[uninstall.statements.front().index].kind, Deletion::Kind::Class)
        << "the classes go first, so WMI routes nothing to the provider while its registration goes";
}

// Statements in the order of the text with the lines they span; deletions as a compiler applies them.
TEST(MofReader, StatementsInTheirOrderWithDeletionsAndLines) {
    const auto read = dorwex::mof::Read(
        "#pragma namespace(\"\\\\\\\\.\\\\root\\\\cimv2\")\n"
        "#pragma autorecover\n"
        "#pragma deleteclass(\"Old\", nofail)\n"
        "class A\n{\n  [key] string k;\n};\n"
        "instance of A as $a { k = \"x\"; };\n"
        "instance of B { r = $a; };\n"
        "#pragma DeleteInstance(\"A.k=\\\"x\\\"\", FAIL)\n");
    ASSERT_EQ(read.error, "");
    const auto& document = read.document;
    using Kind = dorwex::mof::Statement::Kind;
    struct Expected {
        Kind kind;
        std::size_t index;
        std::size_t firstLine;
        std::size_t lastLine;
    };
    const Expected expected[] = {{Kind::Deletion, 0, 3, 3}, {Kind::Class, 0, 4, 7}, {Kind::Instance, 0, 8, 8},
                                 {Kind::Instance, 1, 9, 9},  {Kind::Deletion, 1, 10, 10}};
    ASSERT_EQ(document.statements.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(document.statements[i].kind, expected[i].kind);
        EXPECT_EQ(document.statements[i].index, expected[i].index);
        EXPECT_EQ(document.statements[i].firstLine, expected[i].firstLine);
        EXPECT_EQ(document.statements[i].lastLine, expected[i].lastLine);
        EXPECT_EQ(document.statements[i].ns, "\\\\.\\root\\cimv2");
    }
    EXPECT_EQ(document.deletions[0].target, "Old");
    EXPECT_FALSE(document.deletions[0].failIfMissing);
    EXPECT_EQ(document.deletions[1].kind, dorwex::mof::Deletion::Kind::Instance);
    EXPECT_EQ(document.deletions[1].target, "A.k=\"x\"") << "unescaped once, as the MOF string says";
    EXPECT_TRUE(document.deletions[1].failIfMissing);
    EXPECT_TRUE(document.instances[1].values.at("r").isAlias);
}

TEST(MofReader, KeepsEachQualifierWithItsArgument) {
    const auto read = dorwex::mof::Read(
        "[Dynamic, Provider(\"P\"), Version(3), Locale(en)] class A {\n"
        " [Key] string k;\n"
        " [Static, Implemented] string f([In, ID(0)] uint32 a);\n"
        " string g([in] string b);\n"
        "};");
    ASSERT_EQ(read.error, "");
    const auto* a = read.document.FindClass("a");
    ASSERT_NE(a, nullptr);
    EXPECT_TRUE(a->dynamic);
    EXPECT_EQ(a->provider, "P");
    using Kind = dorwex::mof::Qualifier::Kind;
    const auto* version = dorwex::mof::FindQualifier(a->qualifiers, "VERSION");
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(version->kind, Kind::Number);
    EXPECT_EQ(version->value, "3");
    EXPECT_EQ(dorwex::mof::FindQualifier(a->qualifiers, "locale")->kind, Kind::Identifier);
    EXPECT_EQ(dorwex::mof::FindQualifier(a->qualifiers, "provider")->kind, Kind::String);
    EXPECT_EQ(dorwex::mof::FindQualifier(a->qualifiers, "dynamic")->kind, Kind::Flag);
    EXPECT_EQ(dorwex::mof::FindQualifier(a->qualifiers, "Dynamic")->name, "Dynamic") << "kept as written";
    EXPECT_TRUE(a->properties[0].key);
    ASSERT_EQ(a->methods.size(), 2u);
    EXPECT_TRUE(a->methods[0].isStatic);
    EXPECT_TRUE(a->methods[0].implemented);
    EXPECT_EQ(dorwex::mof::FindQualifier(a->methods[0].parameters[0].qualifiers, "id")->value, "0");
    EXPECT_FALSE(a->methods[1].isStatic);
    EXPECT_FALSE(a->methods[1].implemented);
}

TEST(MofReader, ReportsTheLineOfWhatItCannotRead) {
    struct Case {
        const char* text;
        const char* error;
    };
    const Case cases[] = {
        {"class A {\n string s\n};", "line 3: expected ';' before '}'"},
        {"instance A { x = 1; };", "line 1: expected 'of' after 'instance'"},
        {"class A { string f([out] string a, [] string b); };", "line 1: expected qualifier name"},
        {"class A { string f(string a); };", "line 1: parameter a is neither [in] nor [out]"},
        {"#pragma namespace(\"\\\\.\\root\n", "line 1: unterminated string"},
        {"class A {\n", "line 2: class A is not closed"},
        {"[key, Key] class A { };", "line 1: qualifier Key is given twice"},
        {"[provider(,)] class A { };", "line 1: expected a qualifier argument"},
        {"#pragma deleteclass(\"A\")", "line 1: expected ',' before ')'"},
        {"#pragma deleteclass(\"A\", maybe)", "line 1: expected FAIL or NOFAIL, not maybe"},
        {"class A { [key] string k; };\ninstance of A { k = $nobody; };", "line 2: undefined alias $nobody"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(dorwex::mof::Read(c.text).error, c.error) << c.text;
    }
}

}  // namespace
