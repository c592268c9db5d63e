// A class object in the by-value stream: its whole class definition (so that the receiving process needs no
// repository to describe it) and, for an instance, every value.
#include "class_object.h"

#include <oleauto.h>

#include <new>

namespace dorwex::emulator::wmi {

namespace {

constexpr std::uint64_t kKey = 1;
constexpr std::uint64_t kStatic = 1;
constexpr std::uint64_t kImplemented = 2;

void WriteQualifiers(wire::Writer& writer, const std::vector<QualifierDefinition>& qualifiers) {
    const size_t list = writer.Open(tag::kList);
    for (const auto& qualifier : qualifiers) {
        const size_t entry = writer.Open(tag::kEntry);
        writer.Text(tag::kName, WireText(qualifier.name));
        writer.Unsigned(tag::kType, qualifier.type);
        writer.Text(tag::kText, WireText(qualifier.text));
        writer.Unsigned(tag::kNumber, static_cast<std::uint32_t>(qualifier.number));
        writer.Unsigned(tag::kFlags, qualifier.flag ? 1 : 0);
        writer.Close(entry);
    }
    writer.Close(list);
}

bool ReadQualifiers(wire::Reader& reader, std::vector<QualifierDefinition>& qualifiers) {
    wire::Reader list;
    if (!reader.Open(tag::kList, list)) {
        return false;
    }
    while (!list.AtEnd()) {
        wire::Reader entry;
        std::u16string name;
        std::u16string text;
        std::uint64_t type = 0;
        std::uint64_t number = 0;
        std::uint64_t flag = 0;
        if (!list.Open(tag::kEntry, entry) || !entry.Text(tag::kName, name) || !entry.Unsigned(tag::kType, type) ||
            !entry.Text(tag::kText, text) || !entry.Unsigned(tag::kNumber, number) ||
            !entry.Unsigned(tag::kFlags, flag) || !entry.AtEnd() ||
            (type != VT_BOOL && type != VT_BSTR && type != VT_I4)) {
            return false;
        }
        QualifierDefinition qualifier;
        qualifier.name = FromWireText(name);
        qualifier.type = static_cast<VARTYPE>(type);
        qualifier.text = FromWireText(text);
        qualifier.number = static_cast<LONG>(static_cast<std::uint32_t>(number));
        qualifier.flag = flag != 0;
        qualifiers.push_back(std::move(qualifier));
    }
    return true;
}

void WriteDefinition(wire::Writer& writer, const ClassDefinition* definition);

void WriteDefinitionOf(wire::Writer& writer, const ClassDefinition& definition) {
    const size_t mark = writer.Open(tag::kDefinition);
    writer.Text(tag::kName, WireText(definition.name));
    const size_t ancestors = writer.Open(tag::kList);
    for (const auto& ancestor : definition.ancestors) {
        writer.Text(tag::kName, WireText(ancestor));
    }
    writer.Close(ancestors);
    const size_t properties = writer.Open(tag::kList);
    for (const auto& property : definition.properties) {
        const size_t entry = writer.Open(tag::kEntry);
        writer.Text(tag::kName, WireText(property.name));
        writer.Unsigned(tag::kType, static_cast<std::uint32_t>(property.type));
        writer.Unsigned(tag::kFlags, property.key ? kKey : 0);
        WriteQualifiers(writer, property.qualifiers);
        writer.Close(entry);
    }
    writer.Close(properties);
    const size_t methods = writer.Open(tag::kList);
    for (const auto& method : definition.methods) {
        const size_t entry = writer.Open(tag::kEntry);
        writer.Text(tag::kName, WireText(method.name));
        writer.Unsigned(tag::kFlags, (method.isStatic ? kStatic : 0) | (method.implemented ? kImplemented : 0));
        WriteDefinition(writer, method.in.get());
        WriteDefinition(writer, method.out.get());
        WriteQualifiers(writer, method.qualifiers);
        writer.Close(entry);
    }
    writer.Close(methods);
    writer.Text(tag::kText, WireText(definition.provider));
    WriteQualifiers(writer, definition.qualifiers);
    writer.Close(mark);
}

// A method's parameter class, or tag::kNone for a method without one.
void WriteDefinition(wire::Writer& writer, const ClassDefinition* definition) {
    if (definition == nullptr) {
        writer.Unsigned(tag::kNone, 0);
    } else {
        WriteDefinitionOf(writer, *definition);
    }
}

bool ReadDefinition(wire::Reader& reader, std::shared_ptr<const ClassDefinition>& definition_out, bool optional) {
    std::uint64_t none = 0;
    if (optional && reader.Unsigned(tag::kNone, none)) {
        definition_out.reset();
        return true;
    }
    wire::Reader fields;
    wire::Reader ancestors;
    wire::Reader properties;
    wire::Reader methods;
    std::u16string text;
    auto definition = std::make_shared<ClassDefinition>();
    if (!reader.Open(tag::kDefinition, fields) || !fields.Text(tag::kName, text) ||
        !fields.Open(tag::kList, ancestors)) {
        return false;
    }
    definition->name = FromWireText(text);
    while (!ancestors.AtEnd()) {
        if (!ancestors.Text(tag::kName, text)) {
            return false;
        }
        definition->ancestors.push_back(FromWireText(text));
    }
    if (!fields.Open(tag::kList, properties)) {
        return false;
    }
    while (!properties.AtEnd()) {
        wire::Reader entry;
        std::uint64_t type = 0;
        std::uint64_t flags = 0;
        PropertyDefinition property;
        if (!properties.Open(tag::kEntry, entry) || !entry.Text(tag::kName, text) ||
            !entry.Unsigned(tag::kType, type) || !entry.Unsigned(tag::kFlags, flags) ||
            !ReadQualifiers(entry, property.qualifiers) || !entry.AtEnd() || type > 0xffffffffu) {
            return false;
        }
        property.name = FromWireText(text);
        property.type = static_cast<CIMTYPE>(static_cast<std::uint32_t>(type));
        property.key = (flags & kKey) != 0;
        definition->properties.push_back(std::move(property));
    }
    if (!fields.Open(tag::kList, methods)) {
        return false;
    }
    while (!methods.AtEnd()) {
        wire::Reader entry;
        std::uint64_t flags = 0;
        MethodDefinition method;
        if (!methods.Open(tag::kEntry, entry) || !entry.Text(tag::kName, text) ||
            !entry.Unsigned(tag::kFlags, flags) || !ReadDefinition(entry, method.in, true) ||
            !ReadDefinition(entry, method.out, true) || !ReadQualifiers(entry, method.qualifiers) || !entry.AtEnd()) {
            return false;
        }
        method.name = FromWireText(text);
        method.isStatic = (flags & kStatic) != 0;
        method.implemented = (flags & kImplemented) != 0;
        definition->methods.push_back(std::move(method));
    }
    if (!fields.Text(tag::kText, text)) {
        return false;
    }
    definition->provider = FromWireText(text);
    if (!ReadQualifiers(fields, definition->qualifiers) || !fields.AtEnd()) {
        return false;
    }
    definition_out = std::move(definition);
    return true;
}

}  // namespace

HRESULT ClassObject::WriteObject(wire::Writer& writer, int objectDepth) const {
    if (objectDepth > kMaxObjectDepth) {
        return WBEM_E_INVALID_OBJECT;  // nested deeper than any schema does: an object that holds itself
    }
    // Copies first: an embedded object takes its own lock while it is written, and may be this one.
    std::vector<VARIANT> values(m_values.size());
    HRESULT hr = S_OK;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (size_t i = 0; i < values.size(); ++i) {
            VariantInit(&values[i]);
            if (SUCCEEDED(hr)) {
                hr = VariantCopy(&values[i], const_cast<VARIANT*>(&m_values[i]));
            }
        }
    }
    const size_t mark = writer.Open(tag::kClassObject);
    writer.Unsigned(tag::kFlags, m_instance ? 1 : 0);
    WriteDefinitionOf(writer, *m_definition);
    const size_t list = writer.Open(tag::kList);
    for (size_t i = 0; SUCCEEDED(hr) && i < values.size(); ++i) {
        hr = WriteVariant(writer, values[i], objectDepth);
    }
    writer.Close(list);
    writer.Close(mark);
    for (auto& value : values) {
        VariantClear(&value);
    }
    return hr;
}

HRESULT ClassObject::ReadObject(wire::Reader& reader, int objectDepth, ClassObject** object_out) {
    *object_out = nullptr;
    wire::Reader fields;
    wire::Reader values;
    std::uint64_t instance = 0;
    std::shared_ptr<const ClassDefinition> definition;
    if (objectDepth > kMaxObjectDepth || !reader.Open(tag::kClassObject, fields) ||
        !fields.Unsigned(tag::kFlags, instance) || instance > 1 || !ReadDefinition(fields, definition, false) ||
        !fields.Open(tag::kList, values)) {
        return WBEM_E_INVALID_STREAM;
    }
    auto* object = new (std::nothrow) ClassObject(definition, instance != 0);
    if (object == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    HRESULT hr = S_OK;
    for (size_t i = 0; SUCCEEDED(hr) && i < object->m_values.size(); ++i) {
        VARIANT value;
        if (SUCCEEDED(hr = ReadVariant(values, value, objectDepth))) {
            VariantClear(&object->m_values[i]);
            object->m_values[i] = value;
        }
    }
    if (SUCCEEDED(hr) && (!values.AtEnd() || !fields.AtEnd())) {
        hr = WBEM_E_INVALID_STREAM;
    }
    if (FAILED(hr)) {
        object->Release();
        return hr;
    }
    *object_out = object;
    return S_OK;
}

}  // namespace dorwex::emulator::wmi
