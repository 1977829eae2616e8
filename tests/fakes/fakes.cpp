#include "fakes.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <stdexcept>

namespace fakes {

World& world() {
    static World& theWorld = *new World;  // the stand-ins are also called while the process ends
    return theWorld;
}

void reset() { world() = World(); }

bool World::isToFail(const std::string& name, int count) {
    fallible.insert(name);
    const auto wanted = failAt.find(name);
    return wanted != failAt.end() && wanted->second == count;
}

void World::note(const std::string& name, const std::string& arguments) {
    ++counts[name];
    calls.push_back(name + "(" + arguments + ")");
    if (onCall) {
        onCall(name);
    }
}

bool World::enter(const std::string& name, const std::string& arguments) {
    const bool fails = isToFail(name, counts[name] + 1);
    if (fails) {
        failedCall = calls.size();
    }
    note(name, arguments);
    return fails;
}

bool World::enterAllocation(const std::string& name) {
    const bool fails = isToFail(name, ++counts[name]);
    if (fails) {
        failedCall = calls.size();
        calls.push_back(name + "()");
    }
    return fails;
}

void World::hold(const void* what, const std::string& name, const std::function<void()>& letGo) {
    held[what] = {name, letGo};
    released.erase(what);
}

void World::release(const void* what, const std::string& call) {
    const auto found = held.find(what);
    if (found == held.end()) {
        const auto before = released.find(what);
        throw std::logic_error(call + " of " +
                               (before == released.end() ? "what nobody holds"
                                                         : before->second + ", released before"));
    }
    released[what] = found->second.name;
    held.erase(found);
}

std::vector<std::string> heldNames() {
    std::vector<std::string> names;
    for (const auto& [what, held] : world().held) {
        names.push_back(held.name);
    }
    return names;
}

void letGoOfWhatIsHeld() {
    for (const auto& [what, held] : world().held) {
        held.letGo();
    }
    world().held.clear();
    while (!world().buffers.empty()) {
        std::free(*world().buffers.begin());
    }
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

extern "C" {

// The stand-in for these two is vsyslog; hardened code calls the second.
void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int /*flag*/, const char* format,
                                                ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

}  // extern "C"
