# Installs the build into an empty prefix. Exactly the updater must arrive, in
# Velmora.app/Contents/MacOS: anything else would be left outside the bundle
# or signed into it by mistake.
set(expected "Velmora.app/Contents/MacOS/VelmoraUpdater")
file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${PREFIX}"
                OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE "${PREFIX}" "${PREFIX}/*")
if(NOT installed STREQUAL expected)
    message(FATAL_ERROR "installed \"${installed}\", expected \"${expected}\"")
endif()
