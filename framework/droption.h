// Option parsing for clients, in the framework's style: each option object
// registers itself in a list, and parse_argv matches client arguments against
// that list up to "--".
#pragma once

#include <string>
#include <vector>

enum droption_scope_t { DROPTION_SCOPE_CLIENT = 1 };

class droption_parser_t {
 public:
  // Parses argv[1..argc-1] up to "--". Returns false with a message for the
  // first argument that names no option, or an option without its value or
  // with a value out of range. *last_index is the index where parsing stopped.
  static bool parse_argv(droption_scope_t scope, int argc, const char* argv[], std::string* error_msg,
                         int* last_index);

 protected:
  explicit droption_parser_t(std::string name) : name_(std::move(name)) { allops().push_back(this); }
  virtual ~droption_parser_t() = default;
  virtual bool takes_value() const { return true; }
  virtual bool set_value(const std::string& value) = 0;   // false: out of range

 private:
  static std::vector<droption_parser_t*>& allops();
  std::string name_;
};
