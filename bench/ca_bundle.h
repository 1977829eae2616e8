// Which CA bundle libcurl loads.
#ifndef ORBA_BENCH_CA_BUNDLE_H
#define ORBA_BENCH_CA_BUNDLE_H

#include <string>

// From now on every handle of this process, the library's and the counterpart's alike, has this
// file as its CURLOPT_CAINFO in the place of the built-in /etc/ssl/certs/ca-certificates.crt. So
// one run measures bundles of several sizes. An empty path: the built-in one.
void useCaBundle(const std::string& path);

#endif
