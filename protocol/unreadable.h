// Why a text or a JSON object gives no record.
#pragma once

#include <boost/system/result.hpp>
#include <string>
#include <string_view>

namespace tarnlink {

struct Unreadable {
  enum class Case {
    incomplete,  ///< Something required is missing; a dataset leaves such a value out.
    /// A number does not fit its field, or the reading is strict. Nothing that holds it can be
    /// read: the rest of a dataset would be another dataset on the wire.
    refused,
  };
  Case which = Case::refused;
  std::string where;  ///< The member's path, as values[3].runtimeType; empty: the text as a whole.
  std::string what;   ///< What was expected, and what was there.

  std::string reason() const { return where.empty() ? what : where + ": " + what; }
  Unreadable inside(std::string_view parent) &&;

  bool operator==(const Unreadable&) const = default;
};

/// Lets a result's value() throw; found by Boost through argument-dependent look-up.
[[noreturn]] void throw_exception_from_error(const Unreadable& fault,
                                             const boost::source_location& location);

}  // namespace tarnlink
