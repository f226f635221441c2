# What a shared library shows to programs. The compiler hides our own symbols unless a header marks
# them; instances of the standard library's templates it leaves visible, and those would bind to
# copies in other libraries. So the linker gets a list of what may be seen.

# Beginnings of mangled names of a namespace: functions and variables, type information, virtual
# tables, thunks, variables inside functions and their guards. They are mangled here because the
# readable name of a function template begins with its return type.
set(PAVO_EXPORT_PREFIXES
    "_ZN@ns@" "_ZN[KRO]@ns@" "_ZNK[RO]@ns@" "_ZT?N@ns@" "_ZT[hvc]*_N@ns@" "_ZT[hvc]*_NK@ns@"
    "_ZZN@ns@" "_ZZNK@ns@" "_ZG[VR]N@ns@" "_ZG[VR]ZN@ns@" "_ZG[VR]ZNK@ns@"
)

# pavo_exports(<target> [<C function or variable>...])
# Every library has the same version node: what two of them instantiate, such as the type record of
# a class template, has to be one object in the process.
function(pavo_exports target)
    set_property(GLOBAL APPEND PROPERTY PAVO_C_SYMBOLS ${ARGN})
    set(patterns ${ARGN})
    foreach(ns IN ITEMS 3Mox 4Keel 4Pavo)
        foreach(prefix IN LISTS PAVO_EXPORT_PREFIXES)
            string(REPLACE "@ns@" "${ns}" pattern "${prefix}*")
            list(APPEND patterns "${pattern}")
        endforeach()
    endforeach()
    list(JOIN patterns ";\n        " global)
    set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
    file(CONFIGURE OUTPUT "${map}" @ONLY CONTENT "PAVO_@PROJECT_VERSION_MAJOR@ {
    global:
        @global@;
    local:
        *;
};
"
    )
    target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
