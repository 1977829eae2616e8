# All targets are built with these warnings. They are errors in CI and in the presets
# (ORBA_WARNINGS_AS_ERRORS), but not for users with a newer compiler.
option(ORBA_WARNINGS_AS_ERRORS "Stop the build at a compiler warning" OFF)

function(orba_warnings target)
    target_compile_options(
        ${target}
        PRIVATE -Wall
                -Wextra
                -Wpedantic
                -Wconversion
                -Wsign-conversion
                -Wshadow
                -Wformat=2
                -Wnon-virtual-dtor
                -Wold-style-cast
                -Wcast-align
                -Woverloaded-virtual
                -Wnull-dereference
                -Wundef
                $<$<BOOL:${ORBA_WARNINGS_AS_ERRORS}>:-Werror>)
endfunction()
