# What is shipped resists faults in memory, however it is built. Sanitizers and coverage bring code of their own.
function(orba_harden target)
    if(ORBA_SANITIZE OR ORBA_COVERAGE)
        return()
    endif()
    target_compile_options(
        ${target}
        PRIVATE -fstack-protector-strong
                -fstack-clash-protection
                # The C library needs optimization for it, and says so in a warning.
                $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE
                -D_FORTIFY_SOURCE=2>
                $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fcf-protection=full>
                $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},aarch64>:-mbranch-protection=standard>)
    # Also: what is missing in a library of the device's maker is an error here rather than on the device.
    target_link_options(${target} PRIVATE LINKER:-z,relro,-z,now,-z,noexecstack,-z,defs)
endfunction()
