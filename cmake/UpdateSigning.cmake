# Signed packages: with VELMORA_UPDATE_PUBLIC_KEYS_FILE set, the updater
# refuses any package that the publisher's minisign key did not sign for the
# release being installed. Include this once from the top level, before the
# targets, so that every directory sees its results:
#
#   VELMORA_UPDATE_SIGNING_AVAILABLE  libsodium was found; the signature code is
#                                     real (a test of it makes sense)
#   VELMORA_UPDATE_SIGNING_REQUIRED   keys are configured
#   velmora_add_update_signing(target)
#       adds the signature unit (or, without libsodium, the stub that refuses
#       every signature) and updatePublicKeysText() from the generated
#       "updatepublickeys.h" to target.
include_guard(GLOBAL)
include("${CMAKE_CURRENT_LIST_DIR}/EmbedUpdateKeys.cmake")

set(VELMORA_UPDATE_PUBLIC_KEYS_FILE "" CACHE FILEPATH
    "Publisher's minisign public key file, as minisign -G writes it (during a key rotation, both keys concatenated); every package must then carry a valid signature. Empty: packages are not signed")

set(VELMORA_UPDATE_SIGNING_REQUIRED FALSE)
if(VELMORA_UPDATE_PUBLIC_KEYS_FILE)
    set(VELMORA_UPDATE_SIGNING_REQUIRED TRUE)
    velmora_read_update_keys("${VELMORA_UPDATE_PUBLIC_KEYS_FILE}" velmora_update_key_ids)
    # Editing the keys configures again, so they are checked again.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${VELMORA_UPDATE_PUBLIC_KEYS_FILE}")
endif()

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
    pkg_check_modules(VELMORA_SODIUM QUIET IMPORTED_TARGET GLOBAL libsodium)
endif()
if(TARGET PkgConfig::VELMORA_SODIUM)
    set(VELMORA_UPDATE_SIGNING_AVAILABLE TRUE)
else()
    set(VELMORA_UPDATE_SIGNING_AVAILABLE FALSE)
    if(VELMORA_UPDATE_SIGNING_REQUIRED)
        message(FATAL_ERROR "VELMORA_UPDATE_PUBLIC_KEYS_FILE is set, but libsodium was not found through "
                            "pkg-config; checking signatures needs it (Debian: apt install pkg-config libsodium-dev)")
    endif()
endif()

if(VELMORA_UPDATE_SIGNING_REQUIRED)
    string(REPLACE ";" ", " velmora_update_key_ids "${velmora_update_key_ids}")
    message(STATUS "VelmoraUpdater: packages must carry a minisign signature by publisher key ${velmora_update_key_ids}")
elseif(VELMORA_UPDATE_SIGNING_AVAILABLE)
    message(STATUS "VelmoraUpdater: no VELMORA_UPDATE_PUBLIC_KEYS_FILE given; packages are checked by their SHA-256 digest only")
else()
    message(STATUS "VelmoraUpdater: no VELMORA_UPDATE_PUBLIC_KEYS_FILE given and no libsodium; "
                   "packages are checked by their SHA-256 digest only and signature checks are left out")
endif()

# A production build without keys installs whatever the release service
# names, as long as the digest it also names matches: say so where the
# packager looks, not only in the status lines.
if(NOT VELMORA_UPDATE_SIGNING_REQUIRED
   AND (CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$" OR CMAKE_CONFIGURATION_TYPES MATCHES "Release"))
    message(WARNING "VelmoraUpdater: a release build without VELMORA_UPDATE_PUBLIC_KEYS_FILE checks updates by "
                    "their SHA-256 digest only, which comes from the release service itself. Set it to the "
                    "publisher's minisign public key (README: \"Signed updates\").")
endif()

function(velmora_add_update_signing target)
    get_filename_component(sources "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../updater" ABSOLUTE)
    if(TARGET PkgConfig::VELMORA_SODIUM)
        target_sources(${target} PRIVATE "${sources}/packagesignature.h" "${sources}/packagesignature.cpp")
        target_link_libraries(${target} PRIVATE PkgConfig::VELMORA_SODIUM)
    else()
        target_sources(${target} PRIVATE "${sources}/packagesignature.h" "${sources}/packagesignature_unavailable.cpp")
    endif()

    set(generated "${CMAKE_CURRENT_BINARY_DIR}/${target}_updatekeys")
    set(script "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/EmbedUpdateKeys.cmake")
    set(depends "${script}")
    if(VELMORA_UPDATE_PUBLIC_KEYS_FILE)
        list(APPEND depends "${VELMORA_UPDATE_PUBLIC_KEYS_FILE}")
    endif()
    add_custom_command(
        OUTPUT "${generated}/updatepublickeys.h" "${generated}/updatepublickeys.cpp"
        COMMAND "${CMAKE_COMMAND}" -E make_directory "${generated}"
        COMMAND "${CMAKE_COMMAND}"
                "-DKEYS_FILE=${VELMORA_UPDATE_PUBLIC_KEYS_FILE}"
                "-DOUTPUT_HEADER=${generated}/updatepublickeys.h"
                "-DOUTPUT_SOURCE=${generated}/updatepublickeys.cpp"
                -P "${script}"
        DEPENDS ${depends}
        COMMENT "Embedding the publisher's update signing keys"
        VERBATIM)
    target_sources(${target} PRIVATE "${generated}/updatepublickeys.h" "${generated}/updatepublickeys.cpp")
    target_include_directories(${target} PUBLIC "${sources}" "${generated}")
endfunction()
