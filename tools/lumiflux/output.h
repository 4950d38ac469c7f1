#pragma once

// What the tool prints: human text, or one JSON object per line with --json.

#include <iostream>
#include <string>

#include <nlohmann/json.hpp>

namespace lumiflux_tool {

class Output {
public:
    explicit Output(bool json) : jsonMode(json) {}

    bool json() const { return jsonMode; }

    /** A line for people; nothing in JSON mode. */
    void text(const std::string& line) const
    {
        if (!jsonMode)
            std::cout << line << '\n' << std::flush;
    }
    /** A record for scripts; nothing in human mode. */
    void record(const nlohmann::json& object) const
    {
        if (jsonMode)
            std::cout << object.dump() << '\n' << std::flush;
    }
    /** A failure: to standard error for people, as an "error" record for scripts. */
    void error(const std::string& name, const std::string& message) const
    {
        if (jsonMode)
            std::cout << nlohmann::json{{"event", "error"}, {"error", name}, {"message", message}}.dump() << '\n'
                      << std::flush;
        else
            std::cerr << "lumiflux: " << name << ": " << message << '\n';
    }

private:
    bool jsonMode;
};

} // namespace lumiflux_tool
