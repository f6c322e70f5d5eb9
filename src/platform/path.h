// Lexical helpers for file-system paths ('/' separated, 1252 text). None of them touches the
// disk; the I/O lives in platform/fs.
#pragma once

#include <string>
#include <string_view>

namespace qx::path {

// Joins a folder and a name with exactly one '/' between them.
//   ("dir", "a")  => "dir/a"     ("dir/", "a") => "dir/a"
//   ("", "a")     => "a"         ("dir", "")   => "dir/"
std::string Join(std::string_view folder, std::string_view name);

// The file-name part: everything after the last '/'.
//   "dir/a.b" => "a.b"   "a" => "a"   "dir/" => ""   "/" => ""
std::string_view FileName(std::string_view path);

// The extension of the file-name part, from its last '.' on, dot included.
//   "dir/a.b.c" => ".c"   "a." => "."   "dir.x/a" => ""   "dir/" => ""   ".rc" => ".rc"
std::string_view Extension(std::string_view path);

// The file-name part without its extension.
//   "dir/a.b.c" => "a.b"   "dir/a" => "a"   ".rc" => ""
std::string_view Stem(std::string_view path);

// The folder part, ending in '/' when there is one.
//   "dir/a" => "dir/"   "a" => ""   "/a" => "/"   "d/e/" => "d/e/"
std::string_view ParentFolder(std::string_view path);

// The path with a '/' appended unless it already ends in one ("" stays "").
std::string WithTrailingSlash(std::string_view path);

}  // namespace qx::path
