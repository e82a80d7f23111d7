// Kel::String and Kel::Name: the framework's text values (a std::string with the
// framework's iterator names), used for entity names, paths and parsed text.
#pragma once

#include <string>

namespace Kel {

class String : public std::string {
 public:
  using IteratorConst = std::string::const_iterator;
  using std::string::string;
  String() = default;
  String(const std::string& s) : std::string(s) {}
  String(std::string&& s) : std::string(std::move(s)) {}
};

// The name of an entity.
class Name : public String {
 public:
  using String::String;
  Name() = default;
  Name(const String& s) : String(s) {}
  Name(const std::string& s) : String(s) {}
};

}  // namespace Kel

template <>
struct std::hash<Kel::String> : std::hash<std::string> {};
template <>
struct std::hash<Kel::Name> : std::hash<std::string> {};
