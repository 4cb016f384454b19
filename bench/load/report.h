// The result: one line with one flat JSON object.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zeb_load {

class report {
  public:
    void add(std::string_view key, std::string_view text);
    void add(std::string_view key, uint64_t number);
    void add(std::string_view key, double number);
    void add_null(std::string_view key);

    std::string line() const { return "{" + fields_ + "}\n"; }

  private:
    void add_raw(std::string_view key, std::string_view value);
    std::string fields_;
};

}  // namespace zeb_load
