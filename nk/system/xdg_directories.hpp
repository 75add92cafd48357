// The Linux answers for the folders the client asks the platform for: home, the
// XDG base folders, the user's documents folder, the process's temporary
// folder, the Library folder and application-group containers. Every answer is
// worked out again on each call.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "nk/foundation/ref.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// The user's home folder: `HOME` when it is set; the password database's entry
// when it is unset. nullopt when `HOME` is set but empty or relative (that is
// an error, never a folder relative to the working directory), or when neither
// source answers.
std::optional<std::string> homeDirectory();

// `$XDG_DATA_HOME`, `$XDG_CACHE_HOME` and `$XDG_CONFIG_HOME`. A variable counts
// only when it holds an absolute path; otherwise the defaults `~/.local/share`,
// `~/.cache` and `~/.config`. nullopt when the default is needed and there is
// no home folder. No trailing "/".
std::optional<std::string> xdgDataHome();
std::optional<std::string> xdgCacheHome();
std::optional<std::string> xdgConfigHome();

// The user's documents folder: XDG_DOCUMENTS_DIR from
// `$XDG_CONFIG_HOME/user-dirs.dirs`
// (`XDG_DOCUMENTS_DIR="$HOME/Documents"` or an absolute quoted path), else
// `~/Documents`.
std::optional<std::string> userDocumentsDirectory();

// The folder name the process's own folders use: the main bundle's identifier,
// or the process name when the bundle has no identifier (or one that cannot be
// a folder name).
std::string applicationFolderName();

// True when `identifier` may name a folder of its own: not empty, not "." or
// "..", no "/" and no control characters.
bool isSafeFolderName(std::string_view identifier) noexcept;

// The process's temporary folder: `$XDG_CACHE_HOME/<applicationFolderName()>/`,
// with a trailing "/", created with mode 0700 when missing. Never the shared
// /tmp and never
// `$TMPDIR`: callers clear this folder wholesale. nil when there is no home
// folder to put it in or the folder cannot be created.
Ref<String> temporaryDirectory();

// The Library folder (search-path code 5):
// `$XDG_DATA_HOME/<applicationFolderName()>`. Not created here.
std::optional<std::string> libraryDirectory();

// The application-group container
// `$XDG_DATA_HOME/group-containers/<identifier>`, created (0700) when missing.
// nullopt for an identifier isSafeFolderName() refuses, without a home folder,
// or when it cannot be created.
std::optional<std::string> groupContainerDirectory(std::string_view identifier);

// Creates `path` and every missing parent with `mode`; true when it ends up a
// directory (an existing one included). errno is set on failure.
bool makeDirectories(const std::string& path, unsigned mode);

}  // namespace nk
