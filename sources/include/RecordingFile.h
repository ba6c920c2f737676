#pragma once

#include <cstdint>
#include <string>

// One recording file on disk. It is written as "<name>.dat.tmp" and published as "<name>.dat" only
// once complete and flushed; no existing file is ever truncated or replaced, a name already taken
// gets a "_<n>" suffix. While open the file holds an advisory lock, so that another process finishing
// leftover files (recover) leaves it alone. Every call reports its failure as text with the reason.
class RecordingFile {
public:
    RecordingFile() = default;
    // Closes an open file without publishing it: the .tmp stays for a later recover.
    ~RecordingFile();
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;

    // Creates base + ".dat.tmp", or base + "_<n>.dat.tmp" for the first n whose .dat and .tmp names
    // are both free, with mode 0666 whatever the process mask. The file is locked before it gets
    // that name, and nothing already in the directory is opened or replaced.
    bool create(const std::string& base, std::string& error);
    bool isOpen() const { return fd >= 0; }
    // False once the file has lost its name, for instance with its directory removed.
    bool isLinked() const;
    // Appends text made of whole lines. On failure the file is cut back to its last whole line, and
    // keptBytes says how much of text is in it.
    bool append(const std::string& text, size_t& keptBytes, std::string& error);
    // Flushes the data to disk, checks its size, closes and publishes it. On failure the .tmp stays
    // (or is removed when it holds nothing) and the file is closed either way.
    bool finish(std::string& error);
    // Closes and removes the file.
    void discard();

    const std::string& tmpPath() const { return tmpName; }
    // The published name, valid after finish.
    const std::string& datPath() const { return datName; }
    uint64_t size() const { return committed; }

    // Finishes a .dat.tmp left by a process that ended while recording: a torn last line is cut off
    // and the file is published. Skipped (false, empty error) while its writer still holds it.
    // A file too short to hold the header is removed, one that does not start with it is left alone,
    // and one already published under another name only loses its .tmp name (false, with a reason).
    // Only a regular file of this user is touched, never through a link; one with holes or without a
    // line end near its end is left alone. The work is a few reads whatever the file's size.
    static bool recover(const std::string& tmpPath, std::string& datPath, uint64_t& droppedBytes,
                        std::string& error);

    // Names a recorder with this file name prefix gives its files: prefix + "_" + time stamp (digits,
    // '-' and '_') + ".dat.tmp", and the same + ".new-" + six letters while being created.
    static bool isLeftoverName(const std::string& fileName, const std::string& prefix);
    static bool isHiddenName(const std::string& fileName, const std::string& prefix);
    // Removes a file create() left under its hidden name (its process ended within the creation):
    // only a regular file of this user, unlocked and unchanged for a minute.
    static bool removeAbandonedHidden(const std::string& path, std::string& error);

private:
    static bool publish(const std::string& tmpPath, std::string& datPath, std::string& error);
    static bool isRecordingName(const std::string& fileName, const std::string& prefix, const std::string& ending);
    void closeFile();

    int fd = -1;
    uint64_t committed = 0;  // bytes of whole lines in the file
    std::string tmpName;
    std::string datName;
};
