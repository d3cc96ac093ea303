#include "platform/linux/ini_settings_store.h"
#include "platform/linux/fd_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace tessmark::platform::linux_backend {

// The settings file
// -----------------
// Lines end with LF. Each line is one of:
//
//   [name]        starts the section `name`; the keys below it belong to it
//   key=value     a setting of the section above; the key ends at the first bare "="
//   ;text  #text  a comment
//   (blank)       nothing
//
// Blanks (space, tab, CR) at either end of a line, and around the "=" and inside the brackets,
// are not part of any name or value, so a hand-edited "key = value" or a file with CR LF line
// ends reads as expected. Every other byte stands for itself, bytes above 127 included (they
// are not checked as UTF-8), except the backslash, which starts one of these escapes:
//
//   \\  backslash          \0  NUL              \t  TAB      \n  LF      \r  CR
//   \s  space              \xHH  the byte HH (two hex digits, either case)
//   \=  \[  \]  \;  \#     that character
//
// FormatIni writes a backslash as \\, NUL, TAB, LF and CR as above, every other byte below
// 0x20 and 0x7F as \xHH (upper case), and a space that is the first or last byte of a name or
// value as \s; in a key also "=" as \= and a first "[", ";" or "#" as \[, \; or \#; in a
// section name "]" as \]. Nothing else is escaped, so a value may hold "=", "[", ";" freely.
//
// ParseIni never fails. What it cannot read it passes over:
//   - a line with no bare "=" that is not a section, comment or blank line;
//   - a line starting with "[" that does not end with the first bare "]": it is not a
//     readable section, and the keys below it are passed over up to the next readable one,
//     so that they never land in a section they were not written in;
//   - keys above the first section.
// A backslash that starts none of the escapes above stands for itself (`\q` reads as the two
// bytes `\q`, a lone `\` at the end of a value as `\`). A key given twice keeps its last
// value; a section given twice is one section.

namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The position of the first `stop` not written as an escape, or npos. An escape is a
// backslash and the byte after it, whatever that byte is: Unescape reads the same pairs.
size_t FindBare(std::string_view text, char stop, size_t from = 0) {
  for (size_t i = from; i < text.size(); ++i) {
    if (text[i] == '\\')
      ++i;
    else if (text[i] == stop)
      return i;
  }
  return std::string_view::npos;
}

std::string Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c != '\\' || i + 1 == text.size()) {
      out += c;
      continue;
    }
    char next = text[i + 1];
    switch (next) {
      case '\\':
      case '=':
      case '[':
      case ']':
      case ';':
      case '#':
        out += next;
        break;
      case '0':
        out += '\0';
        break;
      case 't':
        out += '\t';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 's':
        out += ' ';
        break;
      case 'x':
        if (i + 3 < text.size() && HexDigit(text[i + 2]) >= 0 && HexDigit(text[i + 3]) >= 0) {
          out += static_cast<char>(HexDigit(text[i + 2]) * 16 + HexDigit(text[i + 3]));
          i += 2;
          break;
        }
        [[fallthrough]];
      default:
        // Not an escape: the backslash stands for itself and the next byte is read afresh.
        out += c;
        continue;
    }
    ++i;
  }
  return out;
}

enum class Field { kSection, kKey, kValue };

void AppendEscaped(std::string& out, std::string_view text, Field field) {
  static const char kHex[] = "0123456789ABCDEF";
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    bool edge = i == 0 || i + 1 == text.size();
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\0') {
      out += "\\0";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7F) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    } else if (c == ' ' && edge) {
      out += "\\s";
    } else if ((field == Field::kKey && c == '=') || (field == Field::kSection && c == ']') ||
               (field == Field::kKey && i == 0 && (c == '[' || c == ';' || c == '#'))) {
      out += '\\';
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(c);
    }
  }
}

// A settings file holds a few hundred bytes; one far larger is not ours to load.
constexpr size_t kMaxFileSize = 16u << 20;

// Reads the whole file. nullopt when it cannot be read, or is not a regular file of a
// sensible size (a FIFO would block, a device never end), with the cause in `cause`; an empty
// text when it does not exist.
std::optional<std::string> ReadFileText(const std::string& path, std::string& cause) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return std::string();
    cause = std::strerror(errno);
    return std::nullopt;
  }
  std::optional<std::string> text;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    cause = "not a regular file";
  } else {
    text.emplace();
    char buf[4096];
    for (;;) {
      ssize_t n = read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n == 0) break;
      if (n < 0 || text->size() + static_cast<size_t>(n) > kMaxFileSize) {
        cause = n < 0 ? std::strerror(errno) : "larger than a settings file can be";
        text.reset();
        break;
      }
      text->append(buf, static_cast<size_t>(n));
    }
  }
  close(fd);
  return text;
}

std::optional<std::string> ReadFileText(const std::string& path) {
  std::string cause;
  return ReadFileText(path, cause);
}

// Makes the folder and any missing parent, each private to the user as the XDG folders are.
// False with the folder that could not be made, and why, in `fault`.
bool MakeFolders(const std::string& folder, std::string& fault) {
  struct stat st;
  for (size_t slash = folder.find('/', 1);; slash = folder.find('/', slash + 1)) {
    std::string prefix = folder.substr(0, slash);
    bool present = stat(prefix.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    if (!present && mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      fault = prefix + ": " + std::strerror(errno);
      return false;
    }
    if (slash == std::string::npos) break;
  }
  if (stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  fault = folder + ": not a folder";
  return false;
}

// Replaces the file whole: the text goes to a new file beside it, reaches the disk, and is
// then renamed over the old one, so a crash leaves either the old or the new file standing.
// False with the file or folder that failed, and why, in `fault`.
bool ReplaceFile(const std::string& folder, const std::string& path, const std::string& text,
                 std::string& fault) {
  std::string temp = folder + "/.settings-XXXXXX";
  int fd = mkostemp(temp.data(), O_CLOEXEC);  // mode 0600
  if (fd < 0) {
    fault = folder + ": " + std::strerror(errno);
    return false;
  }
  bool written = WriteAll(fd, text) && fsync(fd) == 0;
  written = close(fd) == 0 && written;
  if (!written || rename(temp.c_str(), path.c_str()) != 0) {
    fault = (written ? path : temp) + ": " + std::strerror(errno);
    unlink(temp.c_str());
    return false;
  }
  // The rename itself reaches the disk with the folder; the new file is in place either way.
  int folderFd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd >= 0) {
    fsync(folderFd);
    close(folderFd);
  }
  return true;
}

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

IniContents ParseIni(std::string_view text) {
  IniContents contents;
  std::map<std::string, std::string>* section = nullptr;
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = TrimBlanks(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == ';' || line.front() == '#') continue;
    if (line.front() == '[') {
      size_t closing = FindBare(line, ']', 1);
      if (closing == line.size() - 1)
        section = &contents[Unescape(TrimBlanks(line.substr(1, closing - 1)))];
      else
        section = nullptr;
      continue;
    }
    size_t equals = FindBare(line, '=');
    if (equals == std::string_view::npos || section == nullptr) continue;
    (*section)[Unescape(TrimBlanks(line.substr(0, equals)))] =
        Unescape(TrimBlanks(line.substr(equals + 1)));
  }
  return contents;
}

std::string FormatIni(const IniContents& contents) {
  std::string text;
  for (const auto& [name, keys] : contents) {
    if (!text.empty()) text += '\n';
    text += '[';
    AppendEscaped(text, name, Field::kSection);
    text += "]\n";
    for (const auto& [key, value] : keys) {
      AppendEscaped(text, key, Field::kKey);
      text += '=';
      AppendEscaped(text, value, Field::kValue);
      text += '\n';
    }
  }
  return text;
}

std::string IniSettingsStore::filePath(const std::string& application) const {
  // The application names one folder and one file: it must be a single path component.
  if (application.empty() || application == "." || application == ".." ||
      application.find('/') != std::string::npos || application.find('\0') != std::string::npos)
    return {};
  std::string home = configHome_;
  if (home.empty()) home = Environment("XDG_CONFIG_HOME");
  if (home.empty() && !Environment("HOME").empty()) home = Environment("HOME") + "/.config";
  if (home.empty()) return {};
  return home + "/" + application + "/" + application + ".conf";
}

std::optional<std::string> IniSettingsStore::readSetting(const std::string& application,
                                                         const std::string& section,
                                                         const std::string& key) {
  // The file is a few hundred bytes and read a handful of times per write: reading it each
  // time is cheaper than any doubt about a stale copy.
  std::string path = filePath(application);
  if (path.empty()) return std::nullopt;
  std::optional<std::string> text = ReadFileText(path);
  if (!text) return std::nullopt;
  IniContents contents = ParseIni(*text);
  auto found = contents.find(section);
  if (found == contents.end()) return std::nullopt;
  auto value = found->second.find(key);
  if (value == found->second.end()) return std::nullopt;
  return value->second;
}

bool IniSettingsStore::writeSetting(const std::string& application, const std::string& section,
                                    const std::string& key, const std::string& value) {
  return writeSettings(application, {Setting{section, key, value}});
}

bool IniSettingsStore::writeSettings(const std::string& application,
                                     const std::vector<Setting>& settings) {
  lastWriteFault_.clear();
  std::string path = filePath(application);
  if (path.empty()) {
    lastWriteFault_ = "no folder for the settings ($XDG_CONFIG_HOME and $HOME are not set)";
    return false;
  }
  std::string folder = path.substr(0, path.rfind('/'));
  if (!MakeFolders(folder, lastWriteFault_)) return false;
  // A file that exists but cannot be read is left alone: writing over it would lose every
  // other setting it holds.
  std::string cause;
  std::optional<std::string> text = ReadFileText(path, cause);
  if (!text) {
    lastWriteFault_ = path + ": " + cause;
    return false;
  }
  IniContents contents = ParseIni(*text);
  for (const auto& setting : settings) contents[setting.section][setting.key] = setting.value;
  return ReplaceFile(folder, path, FormatIni(contents), lastWriteFault_);
}

std::string IniSettingsStore::readFault(const std::string& application) {
  std::string path = filePath(application);
  if (path.empty()) return {};  // nothing was ever stored: every value is its default
  std::string cause;
  return ReadFileText(path, cause) ? std::string() : path + ": " + cause;
}

}  // namespace tessmark::platform::linux_backend
