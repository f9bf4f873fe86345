// What another parser says about a text, for comparison with ours.
#pragma once

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tarnlink::fuzz {

/// Reads to the first fault and builds nothing.
class JsonJudge : private nlohmann::json_sax<nlohmann::json> {
 public:
  explicit JsonJudge(std::string_view text) {
    isJson_ = nlohmann::json::sax_parse(text, static_cast<Base*>(this));
  }

  bool isObject() const { return isJson_ && isObject_; }
  std::size_t nesting() const { return deepest_; }
  /// Stopped at a number beyond the largest double, which is JSON all the same.
  bool stoppedAtNumber() const { return stoppedAtNumber_; }

 private:
  using Base = nlohmann::json_sax<nlohmann::json>;

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(Base::number_integer_t) override { return true; }
  bool number_unsigned(Base::number_unsigned_t) override { return true; }
  bool number_float(Base::number_float_t, const Base::string_t&) override { return true; }
  bool string(Base::string_t&) override { return true; }
  bool binary(Base::binary_t&) override { return true; }
  bool key(Base::string_t&) override { return true; }
  bool start_object(std::size_t) override {
    if (depth_ == 0) isObject_ = true;
    return enter();
  }
  bool start_array(std::size_t) override { return enter(); }
  bool end_object() override { return leave(); }
  bool end_array() override { return leave(); }
  bool parse_error(std::size_t, const std::string&,
                   const nlohmann::json::exception& fault) override {
    constexpr int kNumberOverflow = 406;
    stoppedAtNumber_ = fault.id == kNumberOverflow;
    return false;
  }

  bool enter() {
    deepest_ = std::max(deepest_, ++depth_);
    return true;
  }
  bool leave() {
    --depth_;
    return true;
  }

  bool isJson_ = false;
  bool isObject_ = false;
  bool stoppedAtNumber_ = false;
  std::size_t depth_ = 0;
  std::size_t deepest_ = 0;
};

}  // namespace tarnlink::fuzz
