#include "framework/droption.h"

std::vector<droption_parser_t*>& droption_parser_t::allops() {
  static std::vector<droption_parser_t*> ops;
  return ops;
}

bool droption_parser_t::parse_argv(droption_scope_t, int argc, const char* argv[], std::string* error_msg,
                                   int* last_index) {
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") break;
    droption_parser_t* match = nullptr;
    for (droption_parser_t* op : allops())
      if (arg == "-" + op->name_ || arg == "--" + op->name_) match = op;
    if (!match) {
      if (error_msg) *error_msg = "Unknown option: " + arg;
      if (last_index) *last_index = i;
      return false;
    }
    std::string value;
    if (match->takes_value()) {
      if (i + 1 >= argc) {
        if (error_msg) *error_msg = "Option " + match->name_ + " missing value";
        if (last_index) *last_index = i;
        return false;
      }
      value = argv[++i];
    }
    if (!match->set_value(value)) {
      if (error_msg) *error_msg = "Option " + match->name_ + " value out of range";
      if (last_index) *last_index = i;
      return false;
    }
  }
  if (last_index) *last_index = i;
  return true;
}
