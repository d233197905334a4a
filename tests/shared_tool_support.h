// Support for the veltcom tool's tests: running the built tool as a
// subprocess in the test's directory, and a strict JSON reader to take its
// machine-readable output apart.
#ifndef VELTCOM_TESTS_SHARED_TOOL_SUPPORT_H
#define VELTCOM_TESTS_SHARED_TOOL_SUPPORT_H

#include <spawn.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "testSupport.h"

extern char** environ;

// What one run of the tool left behind.
struct ToolRun {
    int exitCode = -1;
    // Set when the tool ended by a signal (an abort, for instance).
    int signal = 0;
    std::string out;
    std::string err;

    // The lines of standard error; the tool reports each error on one.
    std::vector<std::string> ErrLines() const {
        std::vector<std::string> lines;
        size_t start = 0;
        while (start < err.size()) {
            size_t end = err.find('\n', start);
            if (end == std::string::npos) end = err.size();
            lines.push_back(err.substr(start, end - start));
            start = end + 1;
        }
        return lines;
    }
};

inline std::ostream& operator<<(std::ostream& out, const ToolRun& run) {
    return out << "exit " << run.exitCode << ", signal " << run.signal << "\n--- stdout\n"
               << run.out << "--- stderr\n"
               << run.err;
}

// A minimal JSON value and a strict recursive-descent reader for it.
struct JsonValue {
    enum Type { kNull, kBool, kNumber, kString, kArray, kObject } type = kNull;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<JsonValue> items;
    std::vector<std::pair<std::string, JsonValue>> members;

    bool Has(const std::string& key) const {
        for (const auto& member : members) {
            if (member.first == key) return true;
        }
        return false;
    }
    const JsonValue& operator[](const std::string& key) const {
        for (const auto& member : members) {
            if (member.first == key) return member.second;
        }
        static const JsonValue missing;
        return missing;
    }
    const JsonValue& operator[](size_t index) const {
        static const JsonValue missing;
        return index < items.size() ? items[index] : missing;
    }
    bool IsNull() const { return type == kNull; }
};

class JsonReader {
public:
    // True when `text` is exactly one JSON value, blanks around it allowed.
    static bool Parse(const std::string& text, JsonValue& value, std::string& error) {
        JsonReader reader(text);
        if (!reader.Value(value, 0)) {
            error = reader.m_error + " at offset " + std::to_string(reader.m_pos);
            return false;
        }
        reader.Blanks();
        if (reader.m_pos != text.size()) {
            error = "text after the value at offset " + std::to_string(reader.m_pos);
            return false;
        }
        return true;
    }

private:
    explicit JsonReader(const std::string& text) : m_text(text) {}

    bool Fail(const char* message) {
        m_error = message;
        return false;
    }
    void Blanks() {
        while (m_pos < m_text.size() && (m_text[m_pos] == ' ' || m_text[m_pos] == '\n' ||
                                         m_text[m_pos] == '\r' || m_text[m_pos] == '\t'))
            ++m_pos;
    }
    bool Literal(const char* word) {
        const std::string w = word;
        if (m_text.compare(m_pos, w.size(), w) != 0) return Fail("bad literal");
        m_pos += w.size();
        return true;
    }

    bool Value(JsonValue& value, int depth) {
        if (depth > 200) return Fail("nested too deeply");
        Blanks();
        if (m_pos >= m_text.size()) return Fail("value expected");
        const char c = m_text[m_pos];
        if (c == '{') return Object(value, depth);
        if (c == '[') return Array(value, depth);
        if (c == '"') {
            value.type = JsonValue::kString;
            return String(value.text);
        }
        if (c == 't' || c == 'f') {
            value.type = JsonValue::kBool;
            value.boolean = c == 't';
            return Literal(c == 't' ? "true" : "false");
        }
        if (c == 'n') {
            value.type = JsonValue::kNull;
            return Literal("null");
        }
        return Number(value);
    }

    bool Object(JsonValue& value, int depth) {
        value.type = JsonValue::kObject;
        ++m_pos;
        Blanks();
        if (m_pos < m_text.size() && m_text[m_pos] == '}') {
            ++m_pos;
            return true;
        }
        for (;;) {
            Blanks();
            std::string key;
            if (m_pos >= m_text.size() || m_text[m_pos] != '"') return Fail("member name expected");
            if (!String(key)) return false;
            Blanks();
            if (m_pos >= m_text.size() || m_text[m_pos] != ':') return Fail("colon expected");
            ++m_pos;
            JsonValue member;
            if (!Value(member, depth + 1)) return false;
            value.members.emplace_back(key, member);
            Blanks();
            if (m_pos < m_text.size() && m_text[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_text.size() && m_text[m_pos] == '}') {
                ++m_pos;
                return true;
            }
            return Fail("comma or closing brace expected");
        }
    }

    bool Array(JsonValue& value, int depth) {
        value.type = JsonValue::kArray;
        ++m_pos;
        Blanks();
        if (m_pos < m_text.size() && m_text[m_pos] == ']') {
            ++m_pos;
            return true;
        }
        for (;;) {
            JsonValue item;
            if (!Value(item, depth + 1)) return false;
            value.items.push_back(item);
            Blanks();
            if (m_pos < m_text.size() && m_text[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_text.size() && m_text[m_pos] == ']') {
                ++m_pos;
                return true;
            }
            return Fail("comma or closing bracket expected");
        }
    }

    static int HexValue(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    bool Hex4(unsigned& unit) {
        if (m_text.size() - m_pos < 4) return Fail("short \\u escape");
        unit = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = HexValue(m_text[m_pos++]);
            if (digit < 0) return Fail("bad \\u escape");
            unit = unit * 16 + digit;
        }
        return true;
    }

    static void AppendUtf8(std::string& out, unsigned c) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }

    bool String(std::string& out) {
        ++m_pos;
        while (m_pos < m_text.size()) {
            const unsigned char c = static_cast<unsigned char>(m_text[m_pos++]);
            if (c == '"') return true;
            if (c < 0x20) return Fail("raw control character in a string");
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            if (m_pos >= m_text.size()) break;
            const char e = m_text[m_pos++];
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                unsigned unit;
                if (!Hex4(unit)) return false;
                if (unit >= 0xD800 && unit <= 0xDBFF) {
                    unsigned low;
                    if (m_text.compare(m_pos, 2, "\\u") != 0) return Fail("lone surrogate");
                    m_pos += 2;
                    if (!Hex4(low) || low < 0xDC00 || low > 0xDFFF) return Fail("lone surrogate");
                    unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
                    return Fail("lone surrogate");
                }
                AppendUtf8(out, unit);
                break;
            }
            default: return Fail("bad escape");
            }
        }
        return Fail("unterminated string");
    }

    bool Digits() {
        const size_t start = m_pos;
        while (m_pos < m_text.size() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9')
            ++m_pos;
        return m_pos > start;
    }

    bool Number(JsonValue& value) {
        const size_t start = m_pos;
        if (m_text[m_pos] == '-') ++m_pos;
        if (m_pos < m_text.size() && m_text[m_pos] == '0') {
            ++m_pos;
        } else if (!Digits()) {
            return Fail("value expected");
        }
        if (m_pos < m_text.size() && m_text[m_pos] == '.') {
            ++m_pos;
            if (!Digits()) return Fail("digits expected after the point");
        }
        if (m_pos < m_text.size() && (m_text[m_pos] == 'e' || m_text[m_pos] == 'E')) {
            ++m_pos;
            if (m_pos < m_text.size() && (m_text[m_pos] == '+' || m_text[m_pos] == '-')) ++m_pos;
            if (!Digits()) return Fail("digits expected in the exponent");
        }
        value.type = JsonValue::kNumber;
        value.number = std::strtod(m_text.substr(start, m_pos - start).c_str(), nullptr);
        return true;
    }

    const std::string& m_text;
    size_t m_pos = 0;
    std::string m_error;
};

// Tests that run the tool in a fresh directory (the working directory,
// with COMLIB pointing at it) where component libraries can be copied.
class ToolTest : public ComponentTest {
protected:
    // Runs the tool with `args`; `environment` entries "NAME=value" replace
    // or add variables, and "NAME" alone removes one.
    ToolRun Run(const std::vector<std::string>& args,
                const std::vector<std::string>& environment = {}) {
        std::vector<std::string> argv = {VELTCOM_TOOL_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> argp;
        for (std::string& arg : argv)
            argp.push_back(&arg[0]);
        argp.push_back(nullptr);

        std::map<std::string, std::string> variables;
        for (char** entry = environ; *entry; ++entry) {
            const std::string text = *entry;
            const size_t equals = text.find('=');
            variables[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
        }
        for (const std::string& change : environment) {
            const size_t equals = change.find('=');
            if (equals == std::string::npos)
                variables.erase(change);
            else
                variables[change.substr(0, equals)] = change.substr(equals + 1);
        }
        std::vector<std::string> envStrings;
        for (const auto& variable : variables)
            envStrings.push_back(variable.first + "=" + variable.second);
        std::vector<char*> envp;
        for (std::string& entry : envStrings)
            envp.push_back(&entry[0]);
        envp.push_back(nullptr);

        const std::string outPath = PathOf(".tool-stdout");
        const std::string errPath = PathOf(".tool-stderr");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ToolRun run;
        pid_t pid;
        const int spawned =
            posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, argp.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(spawned, 0) << "cannot start " << argv[0];
        if (spawned != 0) return run;
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
        if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
        run.out = ReadFile(".tool-stdout");
        run.err = ReadFile(".tool-stderr");
        unlink(outPath.c_str());
        unlink(errPath.c_str());
        return run;
    }

    // Runs the tool with --json added and parses its standard output.
    JsonValue RunJson(std::vector<std::string> args, int expectedExit = 0) {
        args.push_back("--json");
        const ToolRun run = Run(args);
        EXPECT_EQ(run.exitCode, expectedExit) << run;
        JsonValue value;
        std::string error;
        EXPECT_TRUE(JsonReader::Parse(run.out, value, error)) << error << "\n" << run;
        return value;
    }

    // Copies the component into the directory and registers it with the
    // tool.
    void RegisterWithTool(const char* builtPath) {
        CopyComponent(builtPath);
        const ToolRun run = Run({"register", BaseName(builtPath)});
        ASSERT_EQ(run.exitCode, 0) << run;
    }

    static std::string BaseName(const std::string& path) {
        return path.substr(path.rfind('/') + 1);
    }

    std::string RegistryFile() const { return ReadFile("Registry.XML"); }
};

// A registry file as the runtime writes it, with `classes` inside the
// classes hive and `hives` beside it.
inline std::string HandMadeRegistry(const std::string& classes, const std::string& hives = "") {
    return "<?xml version='1.0' encoding='ISO-8859-1' ?>\n<Software><Quorvane><Version>"
           "<ApplicationData/><Classes>" +
           classes + "</Classes>" + hives + "</Version></Quorvane></Software>";
}

// The tool reported exactly one error, on one line, holding `code` (as
// 0x and eight upper-case digits) and, when given, `text`.
inline ::testing::AssertionResult OneErrorLine(const ToolRun& run, const std::string& code,
                                               const std::string& text = "") {
    const std::vector<std::string> lines = run.ErrLines();
    if (lines.size() != 1)
        return ::testing::AssertionFailure() << "expected one line on stderr, got " << lines.size()
                                             << "\n" << run;
    if (lines[0].rfind("veltcom: ", 0) != 0 || lines[0].find(code) == std::string::npos ||
        lines[0].find(text) == std::string::npos)
        return ::testing::AssertionFailure() << "expected \"" << code << "\" and \"" << text
                                             << "\" in the error line\n" << run;
    return ::testing::AssertionSuccess();
}

#endif
