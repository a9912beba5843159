// pipe.cpp -- named message pipes over pipe(2).
#include "qor/pipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "qor/task.h"

namespace {

struct PipeDev {
    int readFd = -1;
    int writeFd = -1;
    int msgSize = 4;
    std::vector<int> opened;  // descriptors handed out by qorOsOpen
};

struct Registry {
    std::mutex mu;
    std::map<std::string, PipeDev> byName;
    std::map<int, std::string> nameOfFd;
};

Registry& registry() {
    static Registry r;
    return r;
}

int openEnd(const PipeDev& dev, int mode) {
    switch (mode) {
    case QOR_O_RDONLY:
        return fcntl(dev.readFd, F_DUPFD_CLOEXEC, 0);
    case QOR_O_WRONLY:
        return fcntl(dev.writeFd, F_DUPFD_CLOEXEC, 0);
    case QOR_O_RDWR: {
        // Opening a pipe through /proc gives one descriptor for both ends.
        // thread-self, not self: once main's thread has ended /proc/self is gone.
        char path[64];
        std::snprintf(path, sizeof path, "/proc/thread-self/fd/%d", dev.readFd);
        return open(path, O_RDWR | O_CLOEXEC);
    }
    default:
        errno = EINVAL;
        return -1;
    }
}

}  // namespace

int pipeDevCreate(const char* name, int nMessages, int nBytes) {
    if (name == nullptr || nMessages <= 0 || nBytes <= 0) {
        errno = EINVAL;
        return ERROR;
    }
    std::lock_guard lock(registry().mu);
    if (registry().byName.count(name)) {
        errno = EEXIST;
        return ERROR;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return ERROR;
    const long bytes = long(nMessages) * long(nBytes);
    if (bytes > 65536 && fcntl(fds[1], F_SETPIPE_SZ, int(bytes)) < 0) {
        const int saved = errno;
        close(fds[0]);
        close(fds[1]);
        errno = saved;
        return ERROR;
    }
    PipeDev dev;
    dev.readFd = fds[0];
    dev.writeFd = fds[1];
    dev.msgSize = nBytes;
    registry().byName[name] = dev;
    return OK;
}

int qorOsOpen(const char* name, int mode, int /*perm*/) {
    if (name == nullptr) {
        errno = EINVAL;
        return ERROR;
    }
    std::lock_guard lock(registry().mu);
    auto it = registry().byName.find(name);
    if (it == registry().byName.end()) {
        errno = ENOENT;
        return ERROR;
    }
    const int fd = openEnd(it->second, mode);
    if (fd < 0) return ERROR;
    // A full pipe must fail the write rather than block the timer task.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    it->second.opened.push_back(fd);
    registry().nameOfFd[fd] = name;
    return fd;
}

int qorIoctl(int fd, int request, long arg) {
    if (request == FIONMSGS || request == FIOSMSGS) {
        std::lock_guard lock(registry().mu);
        auto name = registry().nameOfFd.find(fd);
        if (name == registry().nameOfFd.end()) {
            errno = EBADF;
            return ERROR;
        }
        PipeDev& dev = registry().byName[name->second];
        if (request == FIOSMSGS) {
            if (arg <= 0) {
                errno = EINVAL;
                return ERROR;
            }
            dev.msgSize = int(arg);
            return OK;
        }
        int bytes = 0;
        if (arg == 0 || ioctl(dev.readFd, FIONREAD, &bytes) != 0) {
            if (arg == 0) errno = EINVAL;
            return ERROR;
        }
        *reinterpret_cast<int*>(arg) = bytes / dev.msgSize;
        return OK;
    }
    return ioctl(fd, static_cast<unsigned long>(request), arg) < 0 ? ERROR : OK;
}

int pipeDevDelete(const char* name) {
    if (name == nullptr) return ERROR;
    std::lock_guard lock(registry().mu);
    auto it = registry().byName.find(name);
    if (it == registry().byName.end()) {
        errno = ENOENT;
        return ERROR;
    }
    for (int fd : it->second.opened) {
        registry().nameOfFd.erase(fd);
        close(fd);
    }
    close(it->second.readFd);
    close(it->second.writeFd);
    registry().byName.erase(it);
    return OK;
}
