// What drivers print.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace host {

class DebugOutput {
  public:
    explicit DebugOutput(std::function<void(std::string_view)> listener) : listener_(std::move(listener)) {}
    void Print(std::string_view text);
    std::string Text() const;

  private:
    const std::function<void(std::string_view)> listener_;
    mutable std::mutex mutex_;
    std::string text_;
};

} // namespace host
