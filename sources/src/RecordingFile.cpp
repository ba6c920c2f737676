#include "RecordingFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "RecordingFormat.h"

namespace {

const std::string kTmpEnding = ".tmp";
const std::string kDatEnding = ".dat";
// Between the .dat.tmp name and six random letters: a file not yet locked and named.
const std::string kHiddenInfix = ".new-";
constexpr time_t kAbandonedAfterSeconds = 60;
constexpr int kMaxSuffix = 1000;  // a bound on the names tried, against a directory full of them

std::string reason(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

std::string numbered(const std::string& base, int n) {
    return n == 0 ? base : base + "_" + std::to_string(n);
}

bool exists(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 || errno != ENOENT;
}

// File systems without hard links answer these; publishing falls back to a rename there.
bool noHardLinks(int error) {
    return error == EPERM || error == EXDEV || error == ENOTSUP || error == ENOSYS || error == EMLINK;
}

bool writeAll(int fd, const char* data, size_t size, size_t& written) {
    written = 0;
    while (written < size) {
        const ssize_t n = ::write(fd, data + written, size - written);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        written += static_cast<size_t>(n);
    }
    return true;
}

// Offset just after the last "\n" of fd, looked for in its last kMaxRowLength bytes only: a torn
// row is shorter than a whole one, so a file without a line end there was not written by a recorder,
// and a huge file costs one read.
bool endOfLastLine(int fd, uint64_t size, uint64_t& end, bool& found) {
    char tail[recordingformat::kMaxRowLength];
    const uint64_t length = size < sizeof(tail) ? size : sizeof(tail);
    const uint64_t start = size - length;
    if (pread(fd, tail, static_cast<size_t>(length), static_cast<off_t>(start)) != static_cast<ssize_t>(length)) {
        return false;
    }
    found = false;
    for (uint64_t i = length; i > 0; --i) {
        if (tail[i - 1] == '\n') {
            end = start + i;
            found = true;
            break;
        }
    }
    return true;
}

// A recorder writes every byte it leaves: a hole means a file made some other way (a sparse file).
bool hasHole(int fd, uint64_t size) {
    const off_t hole = lseek(fd, 0, SEEK_HOLE);
    return hole >= 0 && static_cast<uint64_t>(hole) < size;
}

}  // namespace

RecordingFile::~RecordingFile() { closeFile(); }

bool RecordingFile::create(const std::string& base, std::string& error) {
    closeFile();
    // Made and locked under a name recovery ignores, then given its .tmp name: a starting recorder's
    // recovery never sees it unlocked. mkostemp creates exclusively under a random name, so nothing
    // planted in the directory is opened.
    std::string hidden = base + kDatEnding + kTmpEnding + kHiddenInfix + "XXXXXX";
    const int created = mkostemp(&hidden[0], O_CLOEXEC);
    if (created < 0) {
        error = reason("cannot create", base + kDatEnding + kTmpEnding);
        return false;
    }
    // Readable by every user of the device, set here rather than through the process-wide mask.
    if (fchmod(created, 0666) != 0 || flock(created, LOCK_EX | LOCK_NB) != 0) {
        error = reason("cannot set up", hidden);
        ::close(created);
        ::unlink(hidden.c_str());
        return false;
    }
    for (int n = 0; n < kMaxSuffix; ++n) {
        const std::string name = numbered(base, n);
        if (exists(name + kDatEnding)) {
            continue;
        }
        const std::string tmp = name + kDatEnding + kTmpEnding;
        if (::link(hidden.c_str(), tmp.c_str()) != 0) {
            if (errno == EEXIST) {
                continue;
            }
            if (!noHardLinks(errno) || exists(tmp) || ::rename(hidden.c_str(), tmp.c_str()) != 0) {
                error = reason("cannot create", tmp);
                ::close(created);
                ::unlink(hidden.c_str());
                return false;
            }
        } else {
            ::unlink(hidden.c_str());
        }
        fd = created;
        committed = 0;
        tmpName = tmp;
        datName.clear();
        return true;
    }
    ::close(created);
    ::unlink(hidden.c_str());
    errno = EEXIST;
    error = reason("no free name for", base + kDatEnding);
    return false;
}

bool RecordingFile::isLinked() const {
    struct stat info {};
    return fd >= 0 && fstat(fd, &info) == 0 && info.st_nlink > 0;
}

bool RecordingFile::append(const std::string& text, size_t& keptBytes, std::string& error) {
    size_t written = 0;
    if (writeAll(fd, text.data(), text.size(), written)) {
        committed += written;
        keptBytes = written;
        return true;
    }
    error = reason("cannot write", tmpName);
    const size_t lastLine = text.rfind('\n', written == 0 ? std::string::npos : written - 1);
    keptBytes = written == 0 || lastLine == std::string::npos ? 0 : lastLine + 1;
    if (keptBytes != written && ftruncate(fd, static_cast<off_t>(committed + keptBytes)) != 0) {
        error += "; " + reason("cannot cut the torn line off", tmpName);
    }
    committed += keptBytes;
    return false;
}

bool RecordingFile::finish(std::string& error) {
    if (committed == 0) {
        discard();
        errno = ENODATA;
        error = reason("nothing written to", tmpName);
        return false;
    }
    struct stat info {};
    bool ok = true;
    if (fsync(fd) != 0) {
        error = reason("cannot flush", tmpName);
        ok = false;
    } else if (fstat(fd, &info) != 0 || static_cast<uint64_t>(info.st_size) != committed) {
        error = "size of " + tmpName + " is " + std::to_string(info.st_size) + " bytes, expected " +
                std::to_string(committed);
        ok = false;
    } else {
        ok = publish(tmpName, datName, error);
    }
    // Closed after publishing, so that the lock keeps a recovering process away until then.
    closeFile();
    return ok;
}

void RecordingFile::discard() {
    if (fd >= 0) {
        ::unlink(tmpName.c_str());
    }
    closeFile();
}

void RecordingFile::closeFile() {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

bool RecordingFile::publish(const std::string& tmpPath, std::string& datPath, std::string& error) {
    const std::string base = tmpPath.substr(0, tmpPath.size() - kTmpEnding.size() - kDatEnding.size());
    for (int n = 0; n < kMaxSuffix; ++n) {
        const std::string name = numbered(base, n) + kDatEnding;
        // A link never replaces an existing file; where the file system has none, a rename after
        // the check does, with a short window.
        if (::link(tmpPath.c_str(), name.c_str()) != 0) {
            if (errno == EEXIST) {
                continue;
            }
            if (!noHardLinks(errno)) {
                error = reason("cannot publish " + tmpPath + " as", name);
                return false;
            }
            if (exists(name)) {
                continue;
            }
            if (::rename(tmpPath.c_str(), name.c_str()) != 0) {
                error = reason("cannot publish " + tmpPath + " as", name);
                return false;
            }
        } else if (::unlink(tmpPath.c_str()) != 0) {
            // Left behind, the .tmp would be published a second time by the next recover.
            error = reason("published as " + name + " but cannot remove", tmpPath);
            ::unlink(name.c_str());
            return false;
        }
        datPath = name;
        return true;
    }
    errno = EEXIST;
    error = reason("no free name to publish", tmpPath);
    return false;
}

bool RecordingFile::recover(const std::string& tmpPath, std::string& datPath, uint64_t& droppedBytes,
                            std::string& error) {
    error.clear();
    droppedBytes = 0;
    // Not through a link, and without waiting on a FIFO or device planted under the name.
    const int fd = ::open(tmpPath.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = errno == ELOOP ? "left as it is, a symbolic link: " + tmpPath : reason("cannot open", tmpPath);
        return false;
    }
    struct stat opened {};
    struct stat named {};
    if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || opened.st_uid != geteuid()) {
        ::close(fd);
        error = "left as it is, not a regular file of this user: " + tmpPath;
        return false;
    }
    // A file still being written is locked; one already published by another recover has lost
    // this name.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || lstat(tmpPath.c_str(), &named) != 0 ||
        opened.st_ino != named.st_ino || opened.st_dev != named.st_dev) {
        ::close(fd);
        return false;
    }
    // A process that ended between publishing and removing the .tmp left a second name of a
    // published file: publishing it again would duplicate its rows. Only the name goes.
    if (opened.st_nlink > 1) {
        ::unlink(tmpPath.c_str());
        ::close(fd);
        error = "has other names (published already, or a hard link), only the name " + tmpPath + " removed";
        return false;
    }
    const uint64_t size = static_cast<uint64_t>(opened.st_size);
    const std::string header = recordingformat::kHeaderLine;
    std::string start(header.size(), '\0');
    const ssize_t got = pread(fd, &start[0], start.size(), 0);
    bool ok = false;
    bool found = false;
    uint64_t end = 0;
    if (got < 0) {
        error = reason("cannot read", tmpPath);
    } else if (static_cast<size_t>(got) < header.size() && header.compare(0, static_cast<size_t>(got), start, 0,
                                                                          static_cast<size_t>(got)) == 0) {
        ::unlink(tmpPath.c_str());
        droppedBytes = size;
        errno = ENODATA;
        error = reason("removed, no whole header in", tmpPath);
    } else if (start != header) {
        errno = EINVAL;
        error = reason("left as it is, not a recording:", tmpPath);
    } else if (hasHole(fd, size)) {
        error = "left as it is, not a recording (a sparse file): " + tmpPath;
    } else if (!endOfLastLine(fd, size, end, found)) {
        error = reason("cannot read", tmpPath);
    } else if (!found) {
        error = "left as it is, not a recording (no line end in its last " +
                std::to_string(recordingformat::kMaxRowLength) + " bytes): " + tmpPath;
    } else if (end != size && ftruncate(fd, static_cast<off_t>(end)) != 0) {
        error = reason("cannot cut the torn line off", tmpPath);
    } else if (fsync(fd) != 0) {
        error = reason("cannot flush", tmpPath);
    } else {
        droppedBytes = size - end;
        ok = publish(tmpPath, datPath, error);
    }
    ::close(fd);
    return ok;
}

bool RecordingFile::isLeftoverName(const std::string& fileName, const std::string& prefix) {
    return isRecordingName(fileName, prefix, kDatEnding + kTmpEnding);
}

bool RecordingFile::isHiddenName(const std::string& fileName, const std::string& prefix) {
    const std::size_t infix = fileName.rfind(kHiddenInfix);
    return infix != std::string::npos && fileName.size() == infix + kHiddenInfix.size() + 6 &&
           isRecordingName(fileName.substr(0, infix), prefix, kDatEnding + kTmpEnding);
}

bool RecordingFile::isRecordingName(const std::string& fileName, const std::string& prefix, const std::string& ending) {
    if (fileName.size() <= prefix.size() + 1 + ending.size() || fileName.compare(0, prefix.size(), prefix) != 0 ||
        fileName[prefix.size()] != '_' ||
        fileName.compare(fileName.size() - ending.size(), ending.size(), ending) != 0) {
        return false;
    }
    // The time stamp and the optional "_<n>": digits, '-' and '_' only.
    for (std::size_t i = prefix.size() + 1; i < fileName.size() - ending.size(); ++i) {
        const char c = fileName[i];
        if (!(c >= '0' && c <= '9') && c != '-' && c != '_') {
            return false;
        }
    }
    return true;
}

bool RecordingFile::removeAbandonedHidden(const std::string& path, std::string& error) {
    error.clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = errno == ELOOP ? std::string("a symbolic link") : reason("cannot open", path);
        return false;
    }
    struct stat opened {};
    struct stat named {};
    const time_t now = time(nullptr);
    // Its creator gives it its name within microseconds; one unlocked for this long was abandoned.
    if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || opened.st_uid != geteuid() || opened.st_nlink != 1) {
        error = "not a regular file of this user with one name";
    } else if (opened.st_mtime + kAbandonedAfterSeconds >= now || flock(fd, LOCK_EX | LOCK_NB) != 0) {
        error = "recent or locked, perhaps being created";
    } else if (lstat(path.c_str(), &named) != 0 || named.st_ino != opened.st_ino || named.st_dev != opened.st_dev) {
        error = "renamed meanwhile";
    } else if (::unlink(path.c_str()) != 0) {
        error = reason("cannot remove", path);
    }
    ::close(fd);
    return error.empty();
}
