// Files and folders of the program and of the user. "\" in a path counts as "/".
#pragma once

#include <string>
#include <string_view>

namespace quenmark::platform {

// The whole file, "" when it is missing, unreadable, not a regular file or larger than `limit` bytes.
std::string ReadWholeFile(std::string_view path, std::size_t limit = 256u << 20);
// True when the path is not empty and names something that exists.
bool FileExists(std::string_view path);
// Saves a file: creates or replaces it; a reader sees the old or the new text whole. A failure is a RunTimeError with
// number 70 (permission denied), 76 (path not found), 61 (disk full) or 75, and the old file stays.
void SalvarArquivo(std::string_view path, std::string_view text);
// Appends to the file in one write, creating it. A failure is a RunTimeError as above, and nothing is appended.
void AppendToFile(std::string_view path, std::string_view text);

// Creates the folder and its missing parents with mode 0700. A failure is a RunTimeError.
void CreatePrivateFolders(std::string_view folder);

// False when a symbol would lead out of the folder its file belongs to: empty, "/", "\", ".." or NUL in it.
bool IsSafeInFileName(std::string_view symbol);

// Path of the running executable.
std::string ExecutablePath();
// FEEDER_HOME, or the executable's own folder; no slash at the end.
std::string ProgramFolder();
// FEEDER_STORE, or $XDG_DATA_HOME/quenmark/settings.db, or ~/.local/share/quenmark/settings.db; "" when no home is
// known.
std::string StorePath();
// An environment variable, "" when it is not set.
std::string Environment(const char* name);

}  // namespace quenmark::platform
