// An account-service library that throws what nobody expects. Linked into a program, it stands
// before the real one.
#include <orbatovra/services.h>

#include <string>

std::string orbatovra::AccountPkceService::GetAccessToken() const { throw 1; }
