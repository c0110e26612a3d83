#include "logging/xml_nesting.h"

#include <cctype>
#include <cstring>
#include <string>
#include <vector>

namespace glidewell {

namespace {

// One pass over the text with the parser's rules. Every step function
// returns false where the parser reports an error (and stops).
class NestingScanner {
 public:
  explicit NestingScanner(const char* text) : p_(text) {}

  size_t run(size_t limit) {
    size_t deepest = 0;
    skipWhite();
    while (*p_ != '\0') {
      bool ok;
      if (open_.empty()) {
        // Document level: anything but a node ends the document.
        if (*p_ != '<') break;
        ok = node();
      } else if (*p_ != '<') {
        ok = text();
      } else if (startsWith(p_, "</", false)) {
        ok = endTag();
      } else {
        ok = node();
      }
      if (!ok) break;
      if (open_.size() > deepest) deepest = open_.size();
      if (deepest > limit) return limit + 1;
      skipWhite();
    }
    return deepest;
  }

 private:
  static bool white(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
  // Bytes from 127 up count as letters, as in the parser.
  static bool alpha(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    return u >= 127 || std::isalpha(u) != 0;
  }
  static bool alnum(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    return u >= 127 || std::isalnum(u) != 0;
  }
  static bool startsWith(const char* s, const char* tag, bool ignoreCase) {
    for (; *tag != '\0'; ++s, ++tag) {
      if (*s == '\0') return false;
      if (ignoreCase ? std::tolower(static_cast<unsigned char>(*s)) != std::tolower(static_cast<unsigned char>(*tag))
                     : *s != *tag) {
        return false;
      }
    }
    return true;
  }

  void skipWhite() {
    while (*p_ != '\0' && white(*p_)) ++p_;
  }

  // A character of text or of an attribute value: an entity may swallow
  // everything up to its ';', quotes and '<' included.
  bool character() {
    if (*p_ != '&') {
      ++p_;
      return true;
    }
    if (p_[1] == '#' && p_[2] != '\0') {
      bool hex = p_[2] == 'x';
      if (hex && p_[3] == '\0') return false;
      const char* semicolon = std::strchr(p_ + (hex ? 3 : 2), ';');
      if (semicolon == nullptr) return false;
      for (const char* q = semicolon - 1; *q != (hex ? 'x' : '#'); --q) {
        if (!(hex ? std::isxdigit(static_cast<unsigned char>(*q)) : std::isdigit(static_cast<unsigned char>(*q)))) {
          return false;
        }
      }
      p_ = semicolon + 1;
      return true;
    }
    static const char* const kNamed[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"};
    for (const char* entity : kNamed) {
      if (std::strncmp(entity, p_, std::strlen(entity)) == 0) {
        p_ += std::strlen(entity);
        return true;
      }
    }
    ++p_;
    return true;
  }

  // Reads up to and past end; fails when end is missing or nothing follows it.
  bool readTextUntil(const char* end) {
    while (*p_ != '\0' && !startsWith(p_, end, false)) {
      if (!character()) return false;
    }
    if (*p_ == '\0') return false;
    p_ += std::strlen(end);
    return *p_ != '\0';
  }

  bool name(std::string* out) {
    if (*p_ == '\0' || !(alpha(*p_) || *p_ == '_')) return false;
    const char* start = p_;
    while (*p_ != '\0' && (alnum(*p_) || *p_ == '_' || *p_ == '-' || *p_ == '.' || *p_ == ':')) ++p_;
    if (out != nullptr) out->assign(start, p_);
    return true;
  }

  bool attribute() {
    skipWhite();
    if (*p_ == '\0' || !name(nullptr)) return false;
    skipWhite();
    if (*p_ != '=') return false;
    ++p_;
    skipWhite();
    if (*p_ == '\0') return false;
    if (*p_ == '\'' || *p_ == '"') {
      char quote[2] = {*p_, '\0'};
      ++p_;
      return readTextUntil(quote);
    }
    while (*p_ != '\0' && !white(*p_) && *p_ != '/' && *p_ != '>') {
      if (*p_ == '\'' || *p_ == '"') return false;
      ++p_;
    }
    return true;
  }

  bool text() {
    // Text runs to the next '<', which stays for the next node.
    if (!readTextUntil("<")) return false;
    --p_;
    return true;
  }

  bool endTag() {
    std::string expected = "</" + open_.back();
    if (!startsWith(p_, expected.c_str(), false)) return false;
    p_ += expected.size();
    skipWhite();
    if (*p_ != '>') return false;
    ++p_;
    open_.pop_back();
    return true;
  }

  bool skipPast(const char* end) {
    while (*p_ != '\0' && !startsWith(p_, end, false)) ++p_;
    if (*p_ != '\0') p_ += std::strlen(end);
    return true;
  }

  bool declaration() {
    p_ += 5;
    while (*p_ != '\0') {
      if (*p_ == '>') {
        ++p_;
        return true;
      }
      skipWhite();
      if (startsWith(p_, "version", true) || startsWith(p_, "encoding", true) || startsWith(p_, "standalone", true)) {
        if (!attribute() || *p_ == '\0') return false;
      } else {
        while (*p_ != '\0' && *p_ != '>' && !white(*p_)) ++p_;
      }
    }
    return false;
  }

  bool cdata() {
    p_ += 9;
    while (*p_ != '\0' && !startsWith(p_, "]]>", false)) ++p_;
    return readTextUntil("]]>");
  }

  bool element() {
    ++p_;
    skipWhite();
    std::string tag;
    if (!name(&tag) || *p_ == '\0') return false;
    for (;;) {
      skipWhite();
      if (*p_ == '\0') return false;
      if (*p_ == '/') {
        ++p_;
        if (*p_ != '>') return false;
        ++p_;
        return true;
      }
      if (*p_ == '>') {
        ++p_;
        open_.push_back(tag);
        return true;
      }
      if (!attribute() || *p_ == '\0') return false;
    }
  }

  bool node() {
    if (startsWith(p_, "<?xml", true)) return declaration();
    if (startsWith(p_, "<!--", false)) {
      p_ += 4;  // "<!-->" does not end itself
      return skipPast("-->");
    }
    if (startsWith(p_, "<![CDATA[", false)) return cdata();
    if (startsWith(p_, "<!", false)) return skipPast(">");
    if (alpha(p_[1]) || p_[1] == '_') return element();
    return skipPast(">");
  }

  const char* p_;
  std::vector<std::string> open_;  // names of the open elements, innermost last
};

}  // namespace

size_t xmlNestingDepth(const char* text, size_t limit) {
  if (text == nullptr) return 0;
  return NestingScanner(text).run(limit);
}

}  // namespace glidewell
