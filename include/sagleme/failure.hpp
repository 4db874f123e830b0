#ifndef SAGLEME_FAILURE_HPP
#define SAGLEME_FAILURE_HPP

// Failures of the host library that have no status of the layer or kernel.

#include <sagleme/export.h>

#include <sagleme/cxx20.hpp>
#include <stdexcept>
#include <string>

namespace sagleme {

class SAGLEME_EXCEPTION Failure : public std::runtime_error {
 public:
  enum class Kind {
    kBadData,     // rows or objects of a file cannot be taken
    kBadInput,    // a document or an option is wrong
    kCannotOpen,  // a database or a file cannot be opened
    kRefused,     // the request conflicts with what is there
  };

  // `advice` says what to do; it may be empty.
  Failure(Kind kind, std::string const& what, std::string advice = {})
      : std::runtime_error(what), kind_(kind), advice_(std::move(advice)) {}

  Kind kind() const { return kind_; }
  std::string const& advice() const { return advice_; }

 private:
  Kind kind_;
  std::string advice_;
};

}  // namespace sagleme

#endif
