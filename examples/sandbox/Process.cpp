#include "sandbox/Process.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <sstream>

#include "Pavo/ScopedNetNs.h"
#include "sandbox/SystemCalls.h"

namespace PavoSandbox {

namespace {

// The paths to try for a program: execvp searches PATH, which for an ordinary user may lack the
// others.
std::vector<std::string> pathsOf(const std::string& program) {
    return {program, "/usr/sbin/" + program, "/sbin/" + program};
}

struct Pipe {
    Pipe() : Pipe(newEnds()) {}

    OwnedFd readEnd;
    OwnedFd writeEnd;

  private:
    struct Ends {
        int fds[2];
    };
    explicit Pipe(const Ends& ends) : readEnd(ends.fds[0]), writeEnd(ends.fds[1]) {}
    static Ends newEnds() {
        Ends ends;
        check(pipe2(ends.fds, O_CLOEXEC) == 0, "pipe2");
        return ends;
    }
};

std::string readAll(int fd) {
    std::string text;
    char part[4096];
    for (ssize_t got = 1; got != 0;) {
        got = read(fd, part, sizeof(part));
        check(got >= 0 || errno == EINTR, "read from a command");
        text.append(part, got > 0 ? static_cast<size_t>(got) : 0);
    }
    return text;
}

std::string joined(const std::vector<std::string>& command) {
    std::ostringstream out;
    for (const std::string& word : command) {
        out << word << ' ';
    }
    return out.str();
}

// In the child. Returns only when no path leads to the program.
void become(const std::vector<std::string>& paths, char* const* arguments, int output) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    for (const std::string& path : paths) {
        execvp(path.c_str(), arguments);
    }
}

int waitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        check(errno == EINTR, "waitpid");
    }
    return status;
}

// Returns when the program is executed. Its output goes to a descriptor.
pid_t start(const std::vector<std::string>& command, int output) {
    const std::vector<std::string> paths = pathsOf(command[0]);
    std::vector<char*> arguments;  // Before the fork: a child of many threads must not allocate.
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    Pipe failure;  // Closed by the execution; what comes before that is its error.
    const pid_t child = fork();
    check(child >= 0, "fork");
    if (child == 0) {
        become(paths, arguments.data(), output);
        (void)!write(failure.writeEnd.fd(), &errno, sizeof(errno));  // The status says it too.
        _exit(127);
    }
    failure.writeEnd.close();
    const std::string error = readAll(failure.readEnd.fd());
    if (!error.empty()) {
        waitFor(child);
        memcpy(&errno, error.data(), sizeof(errno));
        throw systemError("start " + command[0]);
    }
    return child;
}

// The namespace is entered only while the program is started.
pid_t startIn(const std::string& ns, const std::vector<std::string>& command, int output) {
    const Pavo::ScopedNetNs inside(ns.c_str());
    return start(command, output);
}

}  // namespace

std::string run(const std::vector<std::string>& command) {
    Pipe pipe;
    const pid_t child = start(command, pipe.writeEnd.fd());
    pipe.writeEnd.close();
    const std::string output = readAll(pipe.readEnd.fd());
    const int status = waitFor(child);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(joined(command) + "failed: " + output);
    }
    return output;
}

Daemon::Daemon(const std::string& ns, const std::vector<std::string>& command,
               const std::string& logPath)
    : pid_(startIn(ns, command, OwnedFd(openOrThrow(logPath, O_WRONLY | O_CREAT | O_TRUNC)).fd())) {
}

Daemon::~Daemon() {
    kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
}

void Daemon::signalIs(int number) const {
    check(kill(pid_, number) == 0, "kill");
}

}  // namespace PavoSandbox
