// The provider's MOF declares exactly what the schema constants in code say.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "emulator/wmi/mof_reader.h"
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

dorwex::mof::Document ReadProviderMof() {
    std::ifstream file(DORWEX_PROVIDER_MOF);
    std::stringstream text;
    text << file.rdbuf();
    const auto result = dorwex::mof::Read(text.str());
    EXPECT_EQ(result.error, "");
    return result.document;
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
    };
    for (const auto& c : cases) {
        EXPECT_EQ(dorwex::mof::Read(c.text).error, c.error) << c.text;
    }
}

}  // namespace
