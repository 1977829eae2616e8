# ORBA_SANITIZE names the sanitizers for the whole tree, as for the compiler's -fsanitize:
# "address;undefined" or "thread". The presets set it.
set(ORBA_SANITIZE "" CACHE STRING "Sanitizers to build with: address;undefined or thread")

if(ORBA_SANITIZE)
    list(JOIN ORBA_SANITIZE "," orba_sanitizers)
    add_compile_options(-fsanitize=${orba_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${orba_sanitizers})
    add_compile_definitions(ORBA_SANITIZED)
endif()
