# Compiles the publisher's minisign public keys into the updater, and checks
# them the way the updater will read them, so that a wrong file stops the
# build instead of every later update.
#
# Included (by UpdateSigning.cmake), it only defines velmora_read_update_keys.
# Run with -P, it writes the keys as a source file:
#   KEYS_FILE (empty: no keys), OUTPUT_HEADER, OUTPUT_SOURCE.
cmake_policy(VERSION 3.21)

# The id a signature names is bytes 2..9 of the key; the first 16 base64
# characters hold bytes 0..11. It is shown as minisign prints it: a
# little-endian number in upper-case hexadecimal, without leading zeros.
function(_velmora_key_id key_line out)
    set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
    set(bytes "")
    foreach(group 0 4 8 12)
        set(value 0)
        foreach(offset 0 1 2 3)
            math(EXPR index "${group} + ${offset}")
            string(SUBSTRING "${key_line}" ${index} 1 character)
            string(FIND "${alphabet}" "${character}" sextet)
            math(EXPR value "(${value} << 6) | ${sextet}")
        endforeach()
        foreach(shift 16 8 0)
            math(EXPR byte "((${value} >> ${shift}) & 255) | 256" OUTPUT_FORMAT HEXADECIMAL)
            string(SUBSTRING "${byte}" 3 2 byte)
            list(APPEND bytes "${byte}")
        endforeach()
    endforeach()
    set(id "")
    foreach(index RANGE 9 2 -1)
        list(GET bytes ${index} byte)
        string(APPEND id "${byte}")
    endforeach()
    string(TOUPPER "${id}" id)
    string(REGEX REPLACE "^0+(.)" "\\1" id "${id}")
    set(${out} "${id}" PARENT_SCOPE)
endfunction()

# Stops with FATAL_ERROR unless the file holds one or more public keys as
# minisign -G writes them ("untrusted comment:" line, then the key line;
# blank lines between keys). Returns the key ids.
function(velmora_read_update_keys file ids_out)
    set(what "VELMORA_UPDATE_PUBLIC_KEYS_FILE (${file})")
    if(IS_DIRECTORY "${file}")
        message(FATAL_ERROR "${what} is a folder, not a key file")
    endif()
    # EXISTS is false for a file that cannot be read; reading it says why.
    set(size -1)
    if(EXISTS "${file}")
        file(SIZE "${file}" size)
    endif()
    if(size GREATER 65536)
        message(FATAL_ERROR "${what} is ${size} bytes long; a key file is a few hundred bytes")
    endif()
    execute_process(COMMAND "${CMAKE_COMMAND}" -E cat "${file}"
                    RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_VARIABLE reason)
    if(NOT result EQUAL 0)
        string(REGEX REPLACE ".*: ([^:]*) \\(ignoring\\).*" "\\1" reason "${reason}")
        message(FATAL_ERROR "${what} cannot be read: ${reason}")
    endif()
    string(LENGTH "${text}" length)
    if(NOT length EQUAL size OR text MATCHES "\r")
        message(FATAL_ERROR "${what} holds carriage returns or bytes that are not text; minisign writes plain line feeds")
    endif()

    set(ids "")
    set(awaiting_key FALSE)
    set(line_number 0)
    set(rest "${text}")
    while(NOT rest STREQUAL "")
        string(FIND "${rest}" "\n" end)
        if(end EQUAL -1)
            set(line "${rest}")
            set(rest "")
        else()
            string(SUBSTRING "${rest}" 0 ${end} line)
            math(EXPR end "${end} + 1")
            string(SUBSTRING "${rest}" ${end} -1 rest)
        endif()
        math(EXPR line_number "${line_number} + 1")
        set(where "${what}, line ${line_number},")
        string(STRIP "${line}" stripped)
        string(LENGTH "${line}" line_length)
        if(line MATCHES "^untrusted comment:")
            if(awaiting_key)
                message(FATAL_ERROR "${where} is a comment where the key line of the comment before it belongs")
            endif()
            set(awaiting_key TRUE)
        elseif(stripped STREQUAL "")
            if(awaiting_key)
                message(FATAL_ERROR "${where} is blank where the key line of the comment before it belongs")
            endif()
        elseif(NOT awaiting_key)
            message(FATAL_ERROR "${where} is neither blank nor an \"untrusted comment:\" line")
        elseif(line_length EQUAL 212 AND line MATCHES "^RW[A-Za-z0-9+/]+=$")
            message(FATAL_ERROR "${where} is a minisign SECRET key; give the public key file (minisign.pub), "
                                "and never let the secret key near the build")
        elseif(NOT line_length EQUAL 56 OR NOT line MATCHES "^RW[QRST][A-Za-z0-9+/]+$")
            message(FATAL_ERROR "${where} is not a minisign Ed25519 public key "
                                "(56 base64 characters encoding 42 bytes that begin with \"Ed\")")
        else()
            _velmora_key_id("${line}" id)
            set(same_id_line "key_line_${id}")
            if(DEFINED ${same_id_line} AND NOT ${same_id_line} STREQUAL line)
                message(FATAL_ERROR "${where} is a different key with the id ${id} of an earlier key")
            endif()
            set(${same_id_line} "${line}")
            list(APPEND ids "${id}")
            set(awaiting_key FALSE)
        endif()
    endwhile()
    if(awaiting_key)
        message(FATAL_ERROR "${what} ends after a comment line, before its key line")
    endif()
    if(NOT ids)
        message(FATAL_ERROR "${what} holds no public key")
    endif()
    list(REMOVE_DUPLICATES ids)
    set(${ids_out} "${ids}" PARENT_SCOPE)
endfunction()

if(NOT CMAKE_SCRIPT_MODE_FILE)
    return()
endif()

set(definition "QByteArray updatePublicKeysText()\n{\n    return QByteArray();\n}\n")
if(KEYS_FILE)
    velmora_read_update_keys("${KEYS_FILE}" ids)
    file(READ "${KEYS_FILE}" hex HEX)
    string(LENGTH "${hex}" hex_length)
    math(EXPR size "${hex_length} / 2")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){16})" "\\1\n        " bytes "${bytes}")
    set(definition "QByteArray updatePublicKeysText()\n{\n    static const char text[${size}] = {\n        ${bytes}\n    };\n    return QByteArray::fromRawData(text, sizeof text);\n}\n")
endif()

function(write_if_changed path content)
    file(WRITE "${path}.tmp" "${content}")
    file(COPY_FILE "${path}.tmp" "${path}" ONLY_IF_DIFFERENT)
    file(REMOVE "${path}.tmp")
endfunction()

get_filename_component(header_name "${OUTPUT_HEADER}" NAME)
write_if_changed("${OUTPUT_HEADER}" "// Generated at build time. Do not edit.
#pragma once

#include <QByteArray>

// The publisher keys this build was configured with, as minisign public key
// files; empty when packages are not signed.
QByteArray updatePublicKeysText();
")
write_if_changed("${OUTPUT_SOURCE}" "// Generated from the publisher key file at build time. Do not edit.
#include \"${header_name}\"

${definition}")
