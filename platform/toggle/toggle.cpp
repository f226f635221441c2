#include "toggle/toggle.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using Json = nlohmann::json;

constexpr size_t maxFileBytes = 1 << 20;  // What is longer is no file of toggles.

// Reports each path once in the life of the process.
void reportOnce(const std::string& path, const char* fault) {
    static std::mutex mutex;
    // Never destroyed: toggles may be asked for while the process ends.
    static auto* const reported = new std::set<std::string>();
    const std::lock_guard<std::mutex> lock(mutex);
    if (reported->insert(path).second) {
        fprintf(stderr, "toggle: %s: %s; the file counts as absent\n", path.c_str(), fault);
    }
}

[[noreturn]] void throwErrno(int error, const char* call) {
    throw std::system_error(error, std::generic_category(), call);
}

class OpenFile {
  public:
    explicit OpenFile(const std::string& path)
        // Without waiting for a writer, where the path is a FIFO.
        : fd_(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), error_(fd_ < 0 ? errno : 0) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() {
        if (fd_ >= 0) {
            close(fd_);  // Opened for reading only: a failure loses nothing.
        }
    }

    bool isAbsent() const { return error_ == ENOENT || error_ == ENOTDIR; }
    std::string content() const;

  private:
    int fd_;
    int error_;  // The errno of a failed open, or 0.
};

std::string OpenFile::content() const {
    if (fd_ < 0) {
        throwErrno(error_, "open");
    }
    std::string content;
    char part[4096];
    for (;;) {
        const ssize_t got = read(fd_, part, sizeof(part));
        if (got > 0) {
            content.append(part, static_cast<size_t>(got));
            if (content.size() > maxFileBytes) {
                throwErrno(EFBIG, "read");
            }
        } else if (got == 0) {
            return content;
        } else if (errno != EINTR) {
            throwErrno(errno, "read");
        }
    }
}

enum class Answer { fileAbsent, nameAbsent, off, on };

Answer parse(const std::string& content, const char* name) {
    const Json toggles = Json::parse(content);
    if (!toggles.is_object()) {
        throw std::invalid_argument("not a JSON object");
    }
    const auto it = toggles.find(name);
    if (it == toggles.end()) {
        return Answer::nameAbsent;
    }
    if (!it->is_boolean()) {
        throw std::invalid_argument("\"" + std::string(name) + "\" is not a boolean");
    }
    return it->get<bool>() ? Answer::on : Answer::off;
}

Answer ask(const std::string& path, const char* name) {
    const OpenFile file(path);
    if (file.isAbsent()) {
        return Answer::fileAbsent;
    }
    try {
        return parse(file.content(), name);
    } catch (const std::exception& fault) {
        reportOnce(path, fault.what());
        return Answer::fileAbsent;
    }
}

std::vector<std::string> directories() {
    // With more privileges than its user has, a program trusts neither the environment nor the
    // working directory, which that user chose.
    if (getauxval(AT_SECURE) != 0) {
        return {"/etc"};
    }
    const char* const directory = getenv("PAVO_TOGGLE_DIR");
    if (directory != nullptr) {
        return {directory};
    }
    return {".", "/etc"};
}

}  // namespace

bool getToggleState(const char* name, const char* file, bool defaultState) try {
    if (name == nullptr || file == nullptr) {
        return defaultState;
    }
    for (const std::string& directory : directories()) {
        const Answer answer = ask(directory + "/" + file, name);
        if (answer == Answer::nameAbsent) {
            return defaultState;
        }
        if (answer != Answer::fileAbsent) {
            return answer == Answer::on;
        }
    }
    return defaultState;
} catch (const std::exception&) {  // Out of memory; callers in C know no exceptions.
    return defaultState;
}
