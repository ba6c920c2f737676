#include "SharedDirectoryFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace shareddirectory {

namespace {

const std::string kTemporaryInfix = ".tmp.";
constexpr std::size_t kTemporaryLetters = 6;  // what mkostemp fills in

std::string failure(const std::string& what, int error) { return what + ": " + std::strerror(error); }

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseNameOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool writeAll(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;
            }
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

int openRegular(const std::string& path, int flags, std::string& reason, struct stat* info) {
    const int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        const int error = errno;
        reason = error == ELOOP ? std::string("a symbolic link, not followed") : failure("cannot open", error);
        errno = error;
        return -1;
    }
    struct stat status {};
    int error = 0;
    if (fstat(fd, &status) != 0) {
        error = errno;
        reason = failure("cannot check", error);
    } else if (!S_ISREG(status.st_mode)) {
        error = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        reason = "not a regular file";
    } else if (status.st_nlink > 1) {
        error = EMLINK;
        reason = "a file with other names (a hard link)";
    } else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
        error = errno;
        reason = failure("cannot set up", error);
    } else {
        if (info != nullptr) {
            *info = status;
        }
        return fd;
    }
    ::close(fd);
    errno = error;
    return -1;
}

bool readSmall(const std::string& path, std::size_t maxBytes, std::string& text, std::string& reason,
               bool& notFound) {
    notFound = false;
    struct stat status {};
    const int fd = openRegular(path, O_RDONLY, reason, &status);
    if (fd < 0) {
        notFound = errno == ENOENT;
        return false;
    }
    bool ok = false;
    if (static_cast<uint64_t>(status.st_size) > maxBytes) {
        reason = "longer than " + std::to_string(maxBytes) + " bytes";
    } else {
        // One byte more than allowed tells a file that grew since fstat.
        text.assign(maxBytes + 1, '\0');
        std::size_t got = 0;
        while (got < text.size()) {
            const ssize_t n = ::read(fd, &text[got], text.size() - got);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                ok = n == 0;
                if (n < 0) {
                    reason = failure("cannot read", errno);
                }
                break;
            }
            got += static_cast<std::size_t>(n);
        }
        if (got > maxBytes) {
            ok = false;
            reason = "longer than " + std::to_string(maxBytes) + " bytes";
        }
        text.resize(ok ? got : 0);
    }
    ::close(fd);
    return ok;
}

bool replace(const std::string& path, const std::string& text, mode_t mode, std::string& reason, bool& created) {
    created = false;
    std::string temporary = path + kTemporaryInfix + std::string(kTemporaryLetters, 'X');
    // O_CREAT | O_EXCL under a random name: a planted link or file is never opened.
    const int fd = mkostemp(&temporary[0], O_CLOEXEC);
    if (fd < 0) {
        reason = failure("cannot create a temporary file", errno);
        return false;
    }
    created = true;
    const char* step = "cannot write";
    bool ok = fchmod(fd, mode) == 0 && writeAll(fd, text);
    // On disk before the rename: a crash must not leave the name on an empty file.
    if (ok && fsync(fd) != 0) {
        step = "cannot flush";
        ok = false;
    }
    int error = ok ? 0 : errno;
    if (::close(fd) != 0 && ok) {
        error = errno;
        step = "cannot close";
        ok = false;
    }
    if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
        step = "cannot rename the temporary file";
        ok = false;
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        reason = failure(step, error);
    }
    return ok;
}

bool isTemporaryOf(const std::string& path, const std::string& candidate) {
    const std::string prefix = baseNameOf(path) + kTemporaryInfix;
    const std::string name = baseNameOf(candidate);
    if (name.size() != prefix.size() + kTemporaryLetters || name.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    for (std::size_t i = prefix.size(); i < name.size(); ++i) {
        if (!std::isalnum(static_cast<unsigned char>(name[i]))) {
            return false;
        }
    }
    return true;
}

int removeStaleTemporaries(const std::string& path, std::vector<std::string>& leftAlone) {
    const std::string directory = directoryOf(path);
    DIR* listing = opendir(directory.c_str());
    if (listing == nullptr) {
        return 0;
    }
    std::vector<std::string> stale;
    const uid_t self = geteuid();
    while (const dirent* entry = readdir(listing)) {
        const std::string name = entry->d_name;
        struct stat status {};
        if (!isTemporaryOf(path, name) || fstatat(dirfd(listing), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISREG(status.st_mode) && status.st_uid == self) {
            stale.push_back(name);
        } else {
            leftAlone.push_back(name);
        }
    }
    int removed = 0;
    for (const std::string& name : stale) {
        removed += unlinkat(dirfd(listing), name.c_str(), 0) == 0 ? 1 : 0;
    }
    closedir(listing);
    return removed;
}

}  // namespace shareddirectory
