#include "retry_gate.h"

#include <json/value.h>

#include <algorithm>
#include <cmath>

#include "encoding.h"
#include "secrets.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr milliseconds kShortest = seconds(1);
constexpr milliseconds kFirstBound = seconds(2);
constexpr milliseconds kLastBound = seconds(300);
constexpr milliseconds kLastBoundForOwner = seconds(60);
constexpr milliseconds kLongest = seconds(3600);
constexpr milliseconds kFirstAge = seconds(10);
constexpr milliseconds kLastAge = seconds(300);
constexpr milliseconds kCalm = seconds(600);
constexpr int kMaxCount = 1000;
constexpr std::size_t kMaxText = 500;

milliseconds doubled(milliseconds first, int times, milliseconds last) {
    constexpr int kEnough = 20;
    return std::min(last, first * (1L << static_cast<unsigned>(std::min(times, kEnough))));
}

milliseconds backOff(int failures, Remedy remedy, double fraction) {
    const milliseconds last = remedy == Remedy::linkAccount ? kLastBoundForOwner : kLastBound;
    const milliseconds bound = doubled(kFirstBound, failures, last);
    const auto spread = static_cast<double>((bound - kShortest).count());
    return kShortest + milliseconds(std::llround(spread * fraction));
}

Json::Int64 number(const Json::Value& object, const char* name) {
    const Json::Value& value = object[name];
    return value.isInt64() ? value.asInt64() : 0;
}

int count(const Json::Value& object, const char* name) {
    return static_cast<int>(std::clamp<Json::Int64>(number(object, name), 0, kMaxCount));
}

Failure readFailure(const Json::Value& object) {
    const auto remedy = std::clamp<Json::Int64>(number(object, "remedy"), 0, 4);
    return Failure{static_cast<int>(number(object, "code")), static_cast<Remedy>(remedy),
                   textMember(object, "text"), textMember(object, "error")};
}

}  // namespace

// A line of JSON behind its digest, so that a torn record is not believed.
std::string RetryGate::text() const {
    Json::Value record(Json::objectValue);
    record["session"] = digest;
    record["boot"] = bootId;
    record["deadline"] = Json::Int64{deadline.count()};
    record["length"] = Json::Int64{length.count()};
    record["failures"] = failures;
    record["renewals"] = renewals;
    if (failure) {
        record["code"] = failure->code;
        record["remedy"] = static_cast<int>(failure->remedy);
        record["text"] = failure->text.substr(0, kMaxText);
        record["error"] = failure->serverError;
    }
    const std::string line = toLine(record);
    return digestOf({line}) + " " + line + "\n";
}

void RetryGate::load(const std::string& text, milliseconds now) {
    const std::size_t blank = std::min(text.find(' '), text.size());
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string line = blank < end ? text.substr(blank + 1, end - blank - 1) : "";
    const std::optional<Json::Value> record = parseObject(line);
    if (!record || text.substr(0, blank) != digestOf({line}) ||
        textMember(*record, "session") != digest) {
        return;
    }
    failures = count(*record, "failures");
    renewals = count(*record, "renewals");
    if (!record->isMember("code")) {
        return;
    }
    failure = readFailure(*record);
    length = std::clamp(milliseconds(number(*record, "length")), milliseconds(0), kLongest);
    deadline = now + length;
    const std::string boot = textMember(*record, "boot");
    if (boot == bootId || boot.empty() || bootId.empty()) {
        deadline = std::min(deadline, milliseconds(number(*record, "deadline")));
    }
}

std::optional<Failure> RetryGate::closedBy(milliseconds now) const {
    if (!failure || deadline <= now) {
        return std::nullopt;
    }
    Failure repeated = *failure;
    repeated.repeated = true;
    repeated.retryAfter = deadline - now;
    return repeated;
}

void RetryGate::close(Failure& cause, milliseconds now, double fraction) {
    length = cause.retryAfter >= kShortest ? std::min(cause.retryAfter, kLongest)
                                           : backOff(failures, cause.remedy, fraction);
    cause.retryAfter = length;
    deadline = now + length;
    failures = std::min(failures + 1, kMaxCount);
    failure = cause;
}

void RetryGate::open() {
    deadline = length = {};
    failures = 0;
    failure.reset();
}

milliseconds RetryGate::requiredAge() const { return doubled(kFirstAge, renewals, kLastAge); }

void RetryGate::refusedAtAge(milliseconds age) {
    if (age > kCalm) {
        renewals = 0;
    }
}

}  // namespace ORBA::OAuth2Session
