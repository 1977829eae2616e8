#include "fakes.h"

#include <algorithm>
#include <stdexcept>

namespace fakes {

World& world() {
    static World theWorld;
    return theWorld;
}

void reset() { world() = World(); }

bool World::enter(const std::string& name, const std::string& arguments) {
    calls.push_back(name + "(" + arguments + ")");
    const int count = ++counts[name];
    if (onCall) {
        onCall(name);
    }
    const auto wanted = failAt.find(name);
    return wanted != failAt.end() && wanted->second == count;
}

void World::release(const std::string& what) {
    const auto found = held.find(what);
    if (found == held.end()) {
        throw std::logic_error("released but not held: " + what);
    }
    held.erase(found);
}

std::vector<std::string> callsOf(const std::vector<std::string>& prefixes) {
    std::vector<std::string> found;
    for (const std::string& call : world().calls) {
        const auto begins = [&](const std::string& prefix) { return call.rfind(prefix, 0) == 0; };
        if (std::any_of(prefixes.begin(), prefixes.end(), begins)) {
            found.push_back(call);
        }
    }
    return found;
}

std::vector<std::string> logLines() {
    std::vector<std::string> lines;
    for (const LogLine& line : world().log) {
        lines.push_back(std::to_string(line.priority) + " " + line.source + " " + line.text);
    }
    return lines;
}

}  // namespace fakes
