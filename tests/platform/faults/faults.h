// Lets the calls that the host edition makes to the system fail, one after the other.
//
// The test program defines these calls itself (faults.cpp, fake_curl.cpp), so that the libraries
// reach its definitions instead of those of the C library, OpenSSL and libcurl.
#ifndef ORBA_TESTS_PLATFORM_FAULTS_H
#define ORBA_TESTS_PLATFORM_FAULTS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace faults {

/** For its lifetime, on its thread: notes the calls, and lets the n-th (from 1) of them fail. */
class Injection {
  public:
    explicit Injection(int failing);
    ~Injection();
    Injection(const Injection&) = delete;
    Injection& operator=(const Injection&) = delete;

    /** The name of the call that failed; empty when there were fewer calls. */
    static std::string failed();
    static std::vector<std::string> calls();
};

/** The same for memory: lets the n-th allocation with `new` fail. */
class AllocationInjection {
  public:
    explicit AllocationInjection(int failing);
    ~AllocationInjection();
    AllocationInjection(const AllocationInjection&) = delete;
    AllocationInjection& operator=(const AllocationInjection&) = delete;

    static bool hasFailed();
};

/** For its lifetime, on its thread: stat() gives every file to the next user and group, fchown() is
 *  only noted. */
class OtherOwner {
  public:
    OtherOwner();
    ~OtherOwner();
    OtherOwner(const OtherOwner&) = delete;
    OtherOwner& operator=(const OtherOwner&) = delete;

    static uid_t chownedUser();
    static gid_t chownedGroup();
};

/** For the replaced calls: notes the call; true when it shall fail. */
bool fails(const char* call);

}  // namespace faults

#endif  // ORBA_TESTS_PLATFORM_FAULTS_H
