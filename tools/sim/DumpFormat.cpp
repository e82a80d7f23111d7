#include "DumpFormat.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace simtool {

std::string stateDump(Zorvek::DemuxDal& dal) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
  if (!file) throw std::runtime_error("cannot make a temporary file for the state dump");
  const int fd = fileno(file.get());
  dal.showDemuxDalState(static_cast<Zorvek::U32>(fd));
  // The dump was written straight to the descriptor, so it is read back the same way.
  std::string text;
  char buffer[4096];
  lseek(fd, 0, SEEK_SET);
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(n));
  return text;
}

namespace {

bool isOpening(char c) { return c == '{' || c == '['; }
bool isClosing(char c) { return c == '}' || c == ']'; }
bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Lays a dump out in one pass, tracking quotes, parentheses and brace depth.
class DumpLayout {
 public:
  explicit DumpLayout(std::string_view in) : in_(in) {}

  std::string run() {
    for (i_ = 0; i_ < in_.size(); ++i_) {
      const char c = in_[i_];
      if (quote_) {
        quoted(c);
      } else if (c == '\'' || c == '"') {
        quote_ = c;
        put(c);
      } else if (parens_ > 0 || c == '(') {
        inCall(c);
      } else {
        structural(c);
      }
    }
    if (!out_.empty() && out_.back() != '\n') out_ += '\n';
    return out_;
  }

 private:
  void quoted(char c) {
    put(c);
    if (escaped_)
      escaped_ = false;
    else if (c == '\\')
      escaped_ = true;
    else if (c == quote_)
      quote_ = 0;
  }

  void inCall(char c) {
    if (c == '(') ++parens_;
    if (c == ')') --parens_;
    put(c);
  }

  void structural(char c) {
    if (isOpening(c)) {
      put(c);
      const std::size_t next = nextNonSpace();
      if (next < in_.size() && isClosing(in_[next])) {
        put(in_[next]);  // an empty group stays on its line
        i_ = next;
        return;
      }
      ++depth_;
      newLine();
    } else if (isClosing(c)) {
      if (depth_ > 0) --depth_;
      newLine();
      put(c);
    } else if (c == ',') {
      put(c);
      const std::size_t next = nextNonSpace();
      // The closing brace that follows starts its own line.
      if (next < in_.size() && !isClosing(in_[next])) newLine();
    } else if (!isSpace(c) || !lineStart_) {
      put(c);
    }
  }

  std::size_t nextNonSpace() const {
    std::size_t j = i_ + 1;
    while (j < in_.size() && isSpace(in_[j])) ++j;
    return j;
  }

  void newLine() {
    while (!out_.empty() && out_.back() == ' ') out_.pop_back();
    out_ += '\n';
    out_.append(2 * depth_, ' ');
    lineStart_ = true;
  }

  void put(char c) {
    out_ += c;
    lineStart_ = false;
  }

  std::string_view in_;
  std::string out_;
  std::size_t i_ = 0;
  std::size_t depth_ = 0;
  int parens_ = 0;
  char quote_ = 0;
  bool escaped_ = false;
  bool lineStart_ = true;
};

}  // namespace

std::string formatDump(std::string_view dump) { return DumpLayout(dump).run(); }

}  // namespace simtool
