# Stand-ins for everything that a session calls, for its unit tests and fuzz targets. Of libcurl only
# what works on texts is real.
find_package(GTest 1.12 REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
add_library(
    session_stand_ins OBJECT
    "${CMAKE_CURRENT_LIST_DIR}/stand_ins.cpp" "${PROJECT_SOURCE_DIR}/tests/fakes/fake_allocation.cpp"
    "${PROJECT_SOURCE_DIR}/tests/fakes/fakes.cpp")
target_include_directories(
    session_stand_ins PUBLIC "${CMAKE_CURRENT_LIST_DIR}" "${PROJECT_SOURCE_DIR}/tests/fakes"
                             "${PROJECT_SOURCE_DIR}/session/include" "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(
    session_stand_ins PUBLIC PkgConfig::JSONCPP orba_platform_headers CURL::libcurl OpenSSL::Crypto GTest::gmock)
foreach(
    function IN
    ITEMS malloc realloc free clock_gettime nanosleep open openat fstat fstatat faccessat pread pwrite ftruncate
          fsync fdatasync fchmod fchmodat flock mkdirat unlinkat renameat posix_fallocate geteuid pthread_atfork
          curl_url RAND_bytes EVP_Digest)
    target_link_options(session_stand_ins PUBLIC -Wl,--wrap=${function})
endforeach()
orba_warnings(session_stand_ins)
# GoogleTest's own macros; and libcurl's variadic functions have an enumeration in front.
target_compile_options(
    session_stand_ins PUBLIC $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments;-Wno-varargs>)
