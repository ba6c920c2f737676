#include "RecordingFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "RecordingFormat.h"

namespace {

const std::string kTmpEnding = ".tmp";
const std::string kDatEnding = ".dat";
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

// Offset just after the last "\n" in the first size bytes of fd, 0 when there is none.
bool endOfLastLine(int fd, uint64_t size, uint64_t& end) {
    std::vector<char> block(4096);
    uint64_t blockEnd = size;
    while (blockEnd > 0) {
        const uint64_t blockStart = blockEnd > block.size() ? blockEnd - block.size() : 0;
        const size_t length = static_cast<size_t>(blockEnd - blockStart);
        if (pread(fd, block.data(), length, static_cast<off_t>(blockStart)) != static_cast<ssize_t>(length)) {
            return false;
        }
        for (size_t i = length; i > 0; --i) {
            if (block[i - 1] == '\n') {
                end = blockStart + i;
                return true;
            }
        }
        blockEnd = blockStart;
    }
    end = 0;
    return true;
}

}  // namespace

RecordingFile::~RecordingFile() { closeFile(); }

bool RecordingFile::create(const std::string& base, std::string& error) {
    closeFile();
    for (int n = 0; n < kMaxSuffix; ++n) {
        const std::string name = numbered(base, n);
        if (exists(name + kDatEnding)) {
            continue;
        }
        const std::string tmp = name + kDatEnding + kTmpEnding;
        const int created = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (created < 0) {
            if (errno == EEXIST) {
                continue;
            }
            error = reason("cannot create", tmp);
            return false;
        }
        // Readable by every user of the device, set here rather than through the process-wide mask.
        if (fchmod(created, 0666) != 0 || flock(created, LOCK_EX | LOCK_NB) != 0) {
            error = reason("cannot set up", tmp);
            ::close(created);
            ::unlink(tmp.c_str());
            return false;
        }
        fd = created;
        committed = 0;
        tmpName = tmp;
        datName.clear();
        return true;
    }
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
    const int fd = ::open(tmpPath.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        error = reason("cannot open", tmpPath);
        return false;
    }
    struct stat opened {};
    struct stat named {};
    // A file still being written is locked; one already published by another recover has lost
    // this name.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || fstat(fd, &opened) != 0 || stat(tmpPath.c_str(), &named) != 0 ||
        opened.st_ino != named.st_ino || opened.st_dev != named.st_dev) {
        ::close(fd);
        return false;
    }
    // A process that ended between publishing and removing the .tmp left a second name of a
    // published file: publishing it again would duplicate its rows.
    if (opened.st_nlink > 1) {
        ::unlink(tmpPath.c_str());
        ::close(fd);
        error = "already published under another name, " + tmpPath + " removed";
        return false;
    }
    const uint64_t size = static_cast<uint64_t>(opened.st_size);
    const std::string header = recordingformat::kHeaderLine;
    std::string start(header.size(), '\0');
    const ssize_t got = pread(fd, &start[0], start.size(), 0);
    bool ok = false;
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
    } else if (!endOfLastLine(fd, size, end)) {
        error = reason("cannot read", tmpPath);
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
