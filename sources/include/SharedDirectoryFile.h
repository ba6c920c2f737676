// Files in directories another process may be able to write into (the metrics, consent and recording
// directories). A name there may have been replaced by a symbolic link, a hard link, a FIFO, a
// directory or a huge sparse file: nothing here follows a link, blocks on open, reads or writes
// anything but a regular file, or reads more than it needs. Failures come back as a short reason
// that does not repeat the path (callers name it).
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace shareddirectory {

// Opens path (flags as for open(2), O_CREAT allowed) without following a symbolic link and without
// waiting on a FIFO or device, and returns the descriptor in blocking mode, or -1. Anything but a
// regular file is refused; so is one with other names (a hard link) when it is opened for writing.
int openRegular(const std::string& path, int flags, std::string& reason, struct stat* info = nullptr);

// The whole content of a regular file of at most maxBytes bytes; a longer file is refused unread.
// notFound is set when there is no such file, a normal case callers keep quiet about.
bool readSmall(const std::string& path, std::size_t maxBytes, std::string& text, std::string& reason,
               bool& notFound);

// Writes text to a temporary file beside path, with a name nobody can guess, created exclusively,
// flushes it and renames it over path: whatever stood under that name is replaced, never written
// through. The file gets mode (the process mask not applied). created tells whether the temporary
// file could be made at all (a missing or unwritable directory).
bool replace(const std::string& path, const std::string& text, mode_t mode, std::string& reason, bool& created);

// The name replace() gives its temporaries: path + ".tmp." and six letters or digits.
bool isTemporaryOf(const std::string& path, const std::string& candidate);

// Removes the temporaries of path that a process killed between writing and renaming left behind:
// regular files of this user with the temporaries' name (removing a hard link removes only the name).
// Returns how many were removed; leftAlone gets the names of the others (links, FIFOs, directories,
// files of other users).
int removeStaleTemporaries(const std::string& path, std::vector<std::string>& leftAlone);

}  // namespace shareddirectory
