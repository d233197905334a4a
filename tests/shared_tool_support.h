// Support for the veltcom tool's tests: the built tool run as a subprocess
// in the test's directory, its JSON checked by python3's strict parser.
#ifndef VELTCOM_TESTS_SHARED_TOOL_SUPPORT_H
#define VELTCOM_TESTS_SHARED_TOOL_SUPPORT_H

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testComponents.h"
#include "testSupport.h"

struct ToolRun {
    int exitCode = -1;
    int signal = 0;  // set when the tool ended by a signal, an abort say
    std::string out, err;
};

inline std::ostream& operator<<(std::ostream& out, const ToolRun& run) {
    return out << "exit " << run.exitCode << ", signal " << run.signal << "\n--- stdout\n"
               << run.out << "--- stderr\n" << run.err;
}

inline bool Contains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

inline std::string Text(const COM_GUID& id) {
    const std::wstring text = TextOf(id);
    return std::string(text.begin(), text.end());
}

// A registry file as the runtime writes it, with `classes` inside the
// classes hive and `hives` beside it.
inline std::string HandMadeRegistry(const std::string& classes, const std::string& hives = "") {
    return "<?xml version='1.0' encoding='ISO-8859-1' ?>\n<Software><Quorvane><Version>"
           "<ApplicationData/><Classes>" + classes + "</Classes>" + hives +
           "</Version></Quorvane></Software>";
}

class ToolTest : public ComponentTest {
protected:
    // Runs the tool, each argument quoted for the shell, which it replaces.
    // With --json last, its output must be one strict-JSON object in UTF-8.
    ToolRun Run(const std::vector<std::string>& args) {
        std::string command = "exec '" VELTCOM_TOOL_PATH "'";
        for (const std::string& arg : args) {
            command += " '";
            for (char c : arg)
                command += c == '\'' ? std::string("'\\''") : std::string(1, c);
            command += "'";
        }
        const int status = std::system(
            (command + " >'" + PathOf(".out") + "' 2>'" + PathOf(".err") + "'").c_str());
        const ToolRun run = {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                             WIFSIGNALED(status) ? WTERMSIG(status) : 0, ReadFile(".out"),
                             ReadFile(".err")};
        if (!args.empty() && args.back() == "--json") {
            const std::string parse = "python3 -c 'import json,sys; assert type(json.loads("
                                      "sys.stdin.buffer.read().decode())) is dict' <'" +
                                      PathOf(".out") + "'";
            EXPECT_EQ(std::system(parse.c_str()), 0) << "not one JSON object: " << args[0] << run;
        }
        return run;
    }

    // Runs the tool, which must succeed without a word on stderr.
    ToolRun RunOk(const std::vector<std::string>& args) {
        const ToolRun run = Run(args);
        EXPECT_TRUE(run.exitCode == 0 && run.err.empty()) << run;
        return run;
    }

    // Runs the tool with --json and returns the JSON text.
    std::string RunJson(std::vector<std::string> args, int expectedExit = 0) {
        args.push_back("--json");
        const ToolRun run = Run(args);
        EXPECT_EQ(run.exitCode, expectedExit) << args[0] << run;
        return run.out;
    }

    // One command line and what it must give: its exit status, and fragments
    // of stdout and of stderr. Stderr holds one line, "veltcom: ...", with
    // every stderr fragment, or nothing when the case names none; a failure
    // with no stdout fragments writes nothing on stdout.
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        std::vector<std::string> out = {}, err = {};
    };

    void Expect(const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            const ToolRun run = Run(c.args);
            const std::string where = ::testing::PrintToString(c.args);
            EXPECT_EQ(run.exitCode, c.exitCode) << where << run;
            for (const std::string& fragment : c.out)
                EXPECT_TRUE(Contains(run.out, fragment)) << where << ": " << fragment << "\n" << run;
            EXPECT_TRUE(c.exitCode == 0 || !c.out.empty() || run.out.empty()) << where << run;
            const bool oneLine =
                run.err.rfind("veltcom: ", 0) == 0 && run.err.find('\n') == run.err.size() - 1;
            EXPECT_TRUE(c.err.empty() ? run.err.empty() : oneLine) << where << run;
            for (const std::string& fragment : c.err)
                EXPECT_TRUE(Contains(run.err, fragment)) << where << ": " << fragment << "\n" << run;
        }
    }

    // Copies the component into the directory, where activation finds it, and
    // registers it with the tool; the name registered is the file's own.
    void RegisterWithTool(const char* builtPath) {
        CopyComponent(builtPath);
        RunOk({"register", builtPath});
    }

    std::string RegistryFile() const { return ReadFile("Registry.XML"); }
};

#endif
