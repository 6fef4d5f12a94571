#pragma once

#include <cstdlib>
#include <optional>
#include <string>

/// Sets an environment variable, or unsets it with null, until the end of its scope.
class ScopedEnvironment {
  public:
    ScopedEnvironment(const char* name, const char* value) : mName(name) {
        if (const char* former = std::getenv(name)) mFormer = former;
        put(value);
    }
    ~ScopedEnvironment() { put(mFormer ? mFormer->c_str() : nullptr); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  private:
    void put(const char* value) const {
        if (value)
            ::setenv(mName.c_str(), value, 1);
        else
            ::unsetenv(mName.c_str());
    }

    std::string mName;
    std::optional<std::string> mFormer;
};
