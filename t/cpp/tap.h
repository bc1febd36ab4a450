// TAP output of the C++ check programs under t/cpp: one "ok N - name" or
// "not ok N - name" line per check (with " # TODO reason" for a known gap),
// the details of a failure as "# " lines, and the plan "1..N" at the end
// (done_testing). The .t file that builds a program relays each of these
// lines as one test (relay_tap in t/lib/QelTest.pm).

#ifndef QEL_T_CPP_TAP_H
#define QEL_T_CPP_TAP_H

#include <sys/wait.h>

#include <cstddef>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <string>

inline int g_count = 0;   // checks reported so far
inline int g_failed = 0;  // checks that failed, TODO checks not counted

// Each line of `text` as a "# " line.
inline void diag(const std::string &text) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        std::printf("# %s\n", line.c_str());
}

// One check. `todo`, when not empty, marks a known gap: reported, not
// counted as failed.
inline bool ok(bool cond, const std::string &name, const std::string &todo = "") {
    ++g_count;
    if (!cond && todo.empty())
        ++g_failed;
    std::printf("%sok %d - %s%s\n", cond ? "" : "not ", g_count, name.c_str(),
                todo.empty() ? "" : (" # TODO " + todo).c_str());
    std::fflush(stdout);
    return cond;
}

// Upper-case hex of at most `n` bytes of `bytes` from offset `from`, the
// bytes separated by spaces ("0A 01 61").
inline std::string hex(const std::string &bytes, size_t from = 0, size_t n = std::string::npos) {
    std::ostringstream out;
    for (size_t i = from; i < bytes.size() && i - from < n; ++i) {
        if (i > from)
            out << ' ';
        out << std::uppercase << std::hex << std::setw(2) << std::setfill('0')
            << static_cast<unsigned>(static_cast<unsigned char>(bytes[i]));
    }
    return out.str();
}

// A value for a diagnostic line.
template <typename T> std::string show(const T &v) {
    std::ostringstream out;
    out << v;
    return out.str();
}
// A string in double quotes: printable ASCII as it is, other bytes as \xNN.
inline std::string show(const std::string &v) {
    std::ostringstream out;
    out << '"';
    for (unsigned char c : v) {
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\')
            out << c;
        else
            out << "\\x" << std::uppercase << std::hex << std::setw(2) << std::setfill('0') << static_cast<unsigned>(c);
    }
    out << '"';
    return out.str();
}
inline std::string show(bool v) { return v ? "true" : "false"; }
inline std::string show(const void *v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

// got == want, with both values as diagnostics when they differ.
template <typename G, typename W> bool is(const G &got, const W &want, const std::string &name) {
    const bool cond = (got == want);
    if (!ok(cond, name))
        diag("     got: " + show(got) + "\nexpected: " + show(want));
    return cond;
}

// A wait status in words.
inline std::string describe_status(int status) {
    if (WIFSIGNALED(status))
        return "killed by signal " + std::to_string(WTERMSIG(status));
    if (WIFEXITED(status))
        return "exit " + std::to_string(WEXITSTATUS(status));
    return "status " + std::to_string(status);
}

// Prints the plan, "1..N" for the N checks reported, and returns the exit
// status of the program: 1 when a check failed, else 0.
inline int done_testing() {
    std::printf("1..%d\n", g_count);
    std::fflush(stdout);
    return g_failed ? 1 : 0;
}

#endif
