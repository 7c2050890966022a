// SPDX-License-Identifier: Apache-2.0
// A private dbus-daemon for tests that need a real bus.

#include "PrivateBus.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace harvo_test {

namespace {

// Starting a daemon takes some ms; a loaded machine may need far more.
const auto kStartLimit = std::chrono::seconds(30);

// Reads one line from |fd| until |deadline|; false on EOF, error or timeout.
bool ReadLine(int fd, std::chrono::steady_clock::time_point deadline, std::string* line) {
    line->clear();
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        struct pollfd waiter = {fd, POLLIN, 0};
        const int ready = poll(&waiter, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        char c = 0;
        const ssize_t got = read(fd, &c, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        if (c == '\n')
            return true;
        line->push_back(c);
    }
}

const char kDirectoryPrefix[] = "harvo-bus-";

// Removes |directory| and the files in it.
void RemoveDirectory(const std::string& directory) {
    if (DIR* dir = opendir(directory.c_str())) {
        while (struct dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..")
                continue;
            unlink((directory + "/" + name).c_str());
        }
        closedir(dir);
    }
    rmdir(directory.c_str());
}

// A test process that dies without its tear-down (a crash, a sanitizer
// stopping it, an exit inside a death test) leaves its directory behind;
// its daemon died with it. The directory names carry the test's pid, so
// the next start removes the directories of processes that are gone.
void RemoveStaleDirectories() {
    DIR* tmp = opendir("/tmp");
    if (tmp == nullptr)
        return;
    std::vector<std::string> stale;
    while (struct dirent* entry = readdir(tmp)) {
        const std::string name = entry->d_name;
        if (name.compare(0, sizeof(kDirectoryPrefix) - 1, kDirectoryPrefix) != 0)
            continue;
        const char* digits = name.c_str() + sizeof(kDirectoryPrefix) - 1;
        char* end = nullptr;
        const long pid = std::strtol(digits, &end, 10);
        if (end == digits || *end != '-' || pid <= 0)
            continue;
        if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
            stale.push_back(name);
    }
    closedir(tmp);
    for (const auto& name : stale)
        RemoveDirectory("/tmp/" + name);
}

}  // namespace

PrivateBus::~PrivateBus() {
    Stop();
}

bool PrivateBus::Start(const std::string& configFile, std::string* error) {
    RemoveStaleDirectories();
    std::string pattern =
        std::string("/tmp/") + kDirectoryPrefix + std::to_string(getpid()) + "-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
        *error = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    directory_ = pattern;

    int addressPipe[2];
    if (pipe2(addressPipe, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    const std::string configArg = "--config-file=" + configFile;
    const std::string addressArg = "--address=unix:dir=" + directory_;
    // The child keeps the write end under a fixed number.
    const int childFd = 3;
    const std::string printArg = "--print-address=" + std::to_string(childFd);
    const std::string logPath = directory_ + "/dbus-daemon.log";
    const pid_t parent = getpid();

    const pid_t pid = fork();
    if (pid < 0) {
        *error = std::string("fork: ") + std::strerror(errno);
        close(addressPipe[0]);
        close(addressPipe[1]);
        return false;
    }
    if (pid == 0) {
        // Die with the test process, also when it crashes.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        if (dup2(addressPipe[1], childFd) < 0)
            _exit(127);
        // The daemon's complaints (e.g. about fd limits) go to a log file.
        const int logFd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (logFd >= 0)
            dup2(logFd, STDERR_FILENO);
        const int nullFd = open("/dev/null", O_RDWR);
        if (nullFd >= 0) {
            dup2(nullFd, STDIN_FILENO);
            dup2(nullFd, STDOUT_FILENO);
        }
        execlp("dbus-daemon", "dbus-daemon", configArg.c_str(), "--nofork", printArg.c_str(),
               addressArg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = pid;
    close(addressPipe[1]);

    std::string line;
    const bool gotAddress =
        ReadLine(addressPipe[0], std::chrono::steady_clock::now() + kStartLimit, &line);
    close(addressPipe[0]);
    if (!gotAddress || line.empty()) {
        *error = "dbus-daemon printed no address (see " + logPath + ")";
        Stop();
        return false;
    }
    address_ = line;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    return true;
}

void PrivateBus::Stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    if (!directory_.empty()) {
        // The log file, and the socket of a daemon that could not remove it.
        RemoveDirectory(directory_);
        directory_.clear();
    }
}

void PrivateBusEnvironment::SetUp() {
    std::string error;
    ASSERT_TRUE(bus_.Start(config_, &error)) << error;
}

void PrivateBusEnvironment::TearDown() {
    bus_.Stop();
}

}  // namespace harvo_test
