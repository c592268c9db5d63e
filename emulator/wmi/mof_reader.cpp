#include "mof_reader.h"

#include <cctype>
#include <stdexcept>

namespace dorwex::mof {

namespace {

enum class TokenKind { Identifier, String, Number, Punctuation, End };

struct Token {
    TokenKind kind = TokenKind::End;
    std::string text;
    std::size_t line = 0;
};

class ReadError : public std::runtime_error {
public:
    ReadError(std::size_t line, const std::string& what)
        : std::runtime_error("line " + std::to_string(line) + ": " + what), m_line(line) {}
    std::size_t Line() const { return m_line; }

private:
    std::size_t m_line;
};

bool SameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

class Lexer {
public:
    explicit Lexer(std::string_view text) : m_text(text) {}

    Token Next() {
        SkipBlanksAndComments();
        Token token;
        token.line = m_line;
        if (m_position >= m_text.size()) {
            return token;
        }
        const char c = m_text[m_position];
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
            token.kind = TokenKind::Identifier;
            while (m_position < m_text.size() &&
                   (std::isalnum(static_cast<unsigned char>(m_text[m_position])) || m_text[m_position] == '_')) {
                token.text += m_text[m_position++];
            }
        } else if (std::isdigit(static_cast<unsigned char>(c)) || c == '-') {
            token.kind = TokenKind::Number;
            token.text += m_text[m_position++];
            while (m_position < m_text.size() && std::isalnum(static_cast<unsigned char>(m_text[m_position]))) {
                token.text += m_text[m_position++];
            }
        } else if (c == '"') {
            token.kind = TokenKind::String;
            ++m_position;
            while (true) {
                if (m_position >= m_text.size() || m_text[m_position] == '\n') {
                    throw ReadError(token.line, "unterminated string");
                }
                char d = m_text[m_position++];
                if (d == '"') {
                    break;
                }
                if (d == '\\') {
                    if (m_position >= m_text.size()) {
                        throw ReadError(token.line, "unterminated string");
                    }
                    d = m_text[m_position++];
                    d = d == 'n' ? '\n' : d == 't' ? '\t' : d;
                }
                token.text += d;
            }
        } else {
            token.kind = TokenKind::Punctuation;
            token.text = std::string(1, c);
            ++m_position;
        }
        return token;
    }

private:
    void SkipBlanksAndComments() {
        while (m_position < m_text.size()) {
            const char c = m_text[m_position];
            if (c == '\n') {
                ++m_line;
                ++m_position;
            } else if (std::isspace(static_cast<unsigned char>(c))) {
                ++m_position;
            } else if (m_text.compare(m_position, 2, "//") == 0) {
                while (m_position < m_text.size() && m_text[m_position] != '\n') {
                    ++m_position;
                }
            } else if (m_text.compare(m_position, 2, "/*") == 0) {
                const auto end = m_text.find("*/", m_position + 2);
                const auto stop = end == std::string_view::npos ? m_text.size() : end + 2;
                for (auto i = m_position; i < stop; ++i) {
                    m_line += m_text[i] == '\n' ? 1 : 0;
                }
                m_position = stop;
            } else {
                break;
            }
        }
    }

    std::string_view m_text;
    std::size_t m_position = 0;
    std::size_t m_line = 1;
};

class Parser {
public:
    explicit Parser(std::string_view text) : m_lexer(text) { Advance(); }

    void Run(Document& document) {
        while (m_token.kind != TokenKind::End) {
            Statement statement;
            statement.firstLine = m_token.line;
            if (IsPunctuation("#")) {
                if (!ReadPragma(document)) {
                    continue;
                }
                statement.kind = Statement::Kind::Deletion;
                statement.index = document.deletions.size() - 1;
            } else if (IsIdentifier("instance")) {
                document.instances.push_back(ReadInstance());
                statement.kind = Statement::Kind::Instance;
                statement.index = document.instances.size() - 1;
            } else {
                document.classes.push_back(ReadClass());
                statement.kind = Statement::Kind::Class;
                statement.index = document.classes.size() - 1;
            }
            statement.lastLine = m_previousLine;
            statement.ns = document.ns;
            document.statements.push_back(statement);
        }
        // An alias stands for an instance of the same text.
        for (const auto& statement : document.statements) {
            if (statement.kind != Statement::Kind::Instance) {
                continue;
            }
            for (const auto& value : document.instances[statement.index].values) {
                if (value.second.isAlias && !HasAlias(document, value.second.text)) {
                    throw ReadError(statement.firstLine, "undefined alias $" + value.second.text);
                }
            }
        }
    }

private:
    void Advance() {
        m_previousLine = m_token.line;
        m_token = m_lexer.Next();
    }
    static bool HasAlias(const Document& document, const std::string& alias) {
        for (const auto& instance : document.instances) {
            if (!instance.alias.empty() && instance.alias == alias) {
                return true;
            }
        }
        return false;
    }
    bool IsPunctuation(const char* text) const { return m_token.kind == TokenKind::Punctuation && m_token.text == text; }
    bool IsIdentifier(const char* text) const { return m_token.kind == TokenKind::Identifier && m_token.text == text; }
    [[noreturn]] void Fail(const std::string& what) const { throw ReadError(m_token.line, what); }

    void Expect(const char* punctuation) {
        if (!IsPunctuation(punctuation)) {
            Fail(std::string("expected '") + punctuation + "'" + (m_token.text.empty() ? "" : " before '" + m_token.text + "'"));
        }
        Advance();
    }
    std::string ExpectIdentifier(const char* what) {
        if (m_token.kind != TokenKind::Identifier) {
            Fail(std::string("expected ") + what);
        }
        std::string text = m_token.text;
        Advance();
        return text;
    }

    // True when the pragma was a deletion, which is then the document's last.
    bool ReadPragma(Document& document) {
        Advance();
        if (!IsIdentifier("pragma")) {
            Fail("expected 'pragma' after '#'");
        }
        Advance();
        const std::string name = ExpectIdentifier("pragma name");
        if (SameName(name, "autorecover")) {
            return false;  // takes no argument; recovery lists do not concern this reader
        }
        Expect("(");
        if (m_token.kind != TokenKind::String) {
            Fail("expected a string argument of #pragma " + name);
        }
        const std::string argument = m_token.text;
        Advance();
        const bool deleteClass = SameName(name, "deleteclass");
        const bool deleteInstance = SameName(name, "deleteinstance");
        if (!deleteClass && !deleteInstance) {
            if (SameName(name, "namespace")) {
                document.ns = argument;
            }
            Expect(")");
            return false;
        }
        Deletion deletion;
        deletion.kind = deleteClass ? Deletion::Kind::Class : Deletion::Kind::Instance;
        deletion.target = argument;
        Expect(",");
        const std::string flag = ExpectIdentifier("FAIL or NOFAIL");
        if (!SameName(flag, "fail") && !SameName(flag, "nofail")) {
            Fail("expected FAIL or NOFAIL, not " + flag);
        }
        deletion.failIfMissing = SameName(flag, "fail");
        Expect(")");
        document.deletions.push_back(deletion);
        return true;
    }

    // [a, b("x"), c(3)]: each qualifier as written, with its argument when it has one.
    Qualifiers ReadQualifiers() {
        Qualifiers qualifiers;
        if (!IsPunctuation("[")) {
            return qualifiers;
        }
        Advance();
        while (true) {
            Qualifier qualifier;
            qualifier.name = ExpectIdentifier("qualifier name");
            if (FindQualifier(qualifiers, qualifier.name) != nullptr) {
                Fail("qualifier " + qualifier.name + " is given twice");
            }
            if (IsPunctuation("(")) {
                Advance();
                switch (m_token.kind) {
                    case TokenKind::String: qualifier.kind = Qualifier::Kind::String; break;
                    case TokenKind::Number: qualifier.kind = Qualifier::Kind::Number; break;
                    case TokenKind::Identifier: qualifier.kind = Qualifier::Kind::Identifier; break;
                    default: Fail("expected a qualifier argument");
                }
                qualifier.value = m_token.text;
                Advance();
                Expect(")");
            }
            qualifiers.push_back(qualifier);
            if (IsPunctuation(",")) {
                Advance();
                continue;
            }
            Expect("]");
            return qualifiers;
        }
    }

    Class ReadClass() {
        const auto qualifiers = ReadQualifiers();
        if (!IsIdentifier("class")) {
            Fail("expected 'class' or 'instance of'");
        }
        Advance();
        Class declared;
        declared.name = ExpectIdentifier("class name");
        declared.dynamic = FindQualifier(qualifiers, "dynamic") != nullptr;
        const Qualifier* provider = FindQualifier(qualifiers, "provider");
        declared.provider = provider == nullptr ? "" : provider->value;
        declared.qualifiers = qualifiers;
        if (IsPunctuation(":")) {
            Advance();
            declared.superclass = ExpectIdentifier("superclass name");
        }
        Expect("{");
        while (!IsPunctuation("}")) {
            if (m_token.kind == TokenKind::End) {
                Fail("class " + declared.name + " is not closed");
            }
            const auto memberQualifiers = ReadQualifiers();
            const std::string type = ExpectIdentifier("a type");
            const std::string name = ExpectIdentifier("a member name");
            if (IsPunctuation("(")) {
                Method method;
                method.name = name;
                method.returnType = type;
                method.isStatic = FindQualifier(memberQualifiers, "static") != nullptr;
                method.implemented = FindQualifier(memberQualifiers, "implemented") != nullptr;
                method.qualifiers = memberQualifiers;
                Advance();
                while (!IsPunctuation(")")) {
                    const auto parameterQualifiers = ReadQualifiers();
                    Parameter parameter;
                    parameter.type = ExpectIdentifier("a parameter type");
                    parameter.name = ExpectIdentifier("a parameter name");
                    parameter.in = FindQualifier(parameterQualifiers, "in") != nullptr;
                    parameter.out = FindQualifier(parameterQualifiers, "out") != nullptr;
                    parameter.qualifiers = parameterQualifiers;
                    if (!parameter.in && !parameter.out) {
                        Fail("parameter " + parameter.name + " is neither [in] nor [out]");
                    }
                    method.parameters.push_back(parameter);
                    if (IsPunctuation(",")) {
                        Advance();
                    } else if (!IsPunctuation(")")) {
                        Fail("expected ',' or ')'");
                    }
                }
                Advance();
                declared.methods.push_back(method);
            } else {
                declared.properties.push_back(
                    {name, type, FindQualifier(memberQualifiers, "key") != nullptr, memberQualifiers});
            }
            Expect(";");
        }
        Advance();
        Expect(";");
        return declared;
    }

    Value ReadValue() {
        Value value;
        if (IsPunctuation("{")) {
            value.isList = true;
            Advance();
            while (!IsPunctuation("}")) {
                if (m_token.kind != TokenKind::String && m_token.kind != TokenKind::Number) {
                    Fail("expected a list element");
                }
                value.list.push_back(m_token.text);
                Advance();
                if (IsPunctuation(",")) {
                    Advance();
                }
            }
            Advance();
        } else if (IsPunctuation("$")) {
            Advance();
            value.isAlias = true;
            value.text = ExpectIdentifier("an alias");
        } else if (m_token.kind == TokenKind::End || m_token.kind == TokenKind::Punctuation) {
            Fail("expected a value");
        } else {
            value.text = m_token.text;
            Advance();
        }
        return value;
    }

    Instance ReadInstance() {
        Advance();
        if (!IsIdentifier("of")) {
            Fail("expected 'of' after 'instance'");
        }
        Advance();
        Instance instance;
        instance.className = ExpectIdentifier("class name");
        if (IsIdentifier("as")) {
            Advance();
            Expect("$");
            instance.alias = ExpectIdentifier("an alias");
        }
        Expect("{");
        while (!IsPunctuation("}")) {
            const std::string name = ExpectIdentifier("a property name");
            Expect("=");
            instance.values[name] = ReadValue();
            Expect(";");
        }
        Advance();
        Expect(";");
        return instance;
    }

    Lexer m_lexer;
    Token m_token;
    std::size_t m_previousLine = 1;  // the line of the token before m_token: where a statement ended
};

}  // namespace

const Qualifier* FindQualifier(const Qualifiers& qualifiers, std::string_view name) {
    for (const auto& qualifier : qualifiers) {
        if (SameName(qualifier.name, name)) {
            return &qualifier;
        }
    }
    return nullptr;
}

const Class* Document::FindClass(std::string_view name) const {
    for (const auto& declared : classes) {
        if (SameName(declared.name, name)) {
            return &declared;
        }
    }
    return nullptr;
}

ReadResult Read(std::string_view text) {
    ReadResult result;
    try {
        Parser parser(text);
        parser.Run(result.document);
    } catch (const ReadError& error) {
        result.error = error.what();
        result.errorLine = error.Line();
    }
    return result;
}

}  // namespace dorwex::mof
