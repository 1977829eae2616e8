// Stands in for libcurl: records what a transfer is told, and answers what the test wants.
#ifndef ORBA_TESTS_PLATFORM_FAKE_CURL_H
#define ORBA_TESTS_PLATFORM_FAKE_CURL_H

#include <curl/curl.h>

#include <string>
#include <vector>

struct FakeCurl {
    // what the transfer does
    CURLcode performResult = CURLE_OK;
    CURLcode setoptFailure = CURLE_BAD_FUNCTION_ARGUMENT;
    std::vector<std::string> pieces = {"body"};
    long status = 200;

    // what was seen
    std::vector<std::string> options;  // "CURLOPT_X=value"
    std::vector<std::string> headers;  // at the time of the transfer
    int open = 0;                      // handles, lists and texts that were not released

    static FakeCurl& instance();
};

#endif  // ORBA_TESTS_PLATFORM_FAKE_CURL_H
