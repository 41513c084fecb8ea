# Writes the service key as a scrambled block (key XOR the label, repeated)
# into a header, so that neither the generated source nor the binary holds
# the plain key. The label lives here and only here; the header hands it to
# the code that unscrambles the key.
# Inputs: KEY_FILE (may be empty), RANDOM_BLOCK_FILE, OUTPUT.
# With CHECK_ONLY set, only KEY_FILE is validated and nothing is written:
# configure runs it that way so that a wrong key stops the build early.
# With MAKE_RANDOM_BLOCK set, writes RANDOM_BLOCK_FILE: the scrambled form of
# a random key that nobody holds, for a build without a key file.
set(label "Pantheria::QuietKeyRing::v2")
set(key_length 169)
string(LENGTH "${label}" label_length)

function(scramble_byte key_byte index out)
    math(EXPR label_index "${index} % ${label_length}")
    string(SUBSTRING "${label}" ${label_index} 1 label_char)
    string(HEX "${label_char}" label_hex)
    math(EXPR value "${key_byte} ^ 0x${label_hex}" OUTPUT_FORMAT HEXADECIMAL)
    set(${out} "${value}" PARENT_SCOPE)
endfunction()

if(MAKE_RANDOM_BLOCK)
    # Printable characters, so that the key still travels in an HTTP header.
    string(RANDOM LENGTH ${key_length}
           ALPHABET "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789" key)
    set(block "")
    math(EXPR last "${key_length} - 1")
    foreach(i RANGE 0 ${last})
        string(SUBSTRING "${key}" ${i} 1 key_char)
        string(HEX "${key_char}" key_hex)
        scramble_byte("0x${key_hex}" ${i} value)
        string(REGEX REPLACE "^0x" "" value "${value}")
        string(LENGTH "${value}" value_length)
        if(value_length EQUAL 1)
            set(value "0${value}")
        endif()
        string(APPEND block "${value}")
    endforeach()
    file(WRITE "${RANDOM_BLOCK_FILE}" "${block}\n")
    return()
endif()

if(KEY_FILE)
    file(READ "${KEY_FILE}" key_hex HEX)
    # One trailing line feed is the editor's, not the key's.
    if(key_hex MATCHES "0a$")
        string(REGEX REPLACE "0a$" "" key_hex "${key_hex}")
    endif()
    string(LENGTH "${key_hex}" hex_length)
    math(EXPR byte_length "${hex_length} / 2")
    if(NOT byte_length EQUAL key_length)
        message(FATAL_ERROR "The service key in ${KEY_FILE} is ${byte_length} bytes long; it must be exactly ${key_length} bytes")
    endif()
else()
    # No key supplied: a random block, which decodes to a key nobody holds.
    file(READ "${RANDOM_BLOCK_FILE}" block_random)
    string(STRIP "${block_random}" block_random)
    string(LENGTH "${block_random}" random_length)
    math(EXPR expected_random_length "${key_length} * 2")
    if(NOT random_length EQUAL expected_random_length OR NOT block_random MATCHES "^[0-9a-f]+$")
        message(FATAL_ERROR "${RANDOM_BLOCK_FILE} must hold ${expected_random_length} lower-case hexadecimal digits; delete it and configure again to make a new one")
    endif()
endif()
if(CHECK_ONLY)
    return()
endif()

set(bytes "")
math(EXPR last "${key_length} - 1")
foreach(i RANGE 0 ${last})
    math(EXPR offset "${i} * 2")
    if(KEY_FILE)
        string(SUBSTRING "${key_hex}" ${offset} 2 pair)
        scramble_byte("0x${pair}" ${i} value)
    else()
        string(SUBSTRING "${block_random}" ${offset} 2 pair)
        set(value "0x${pair}")
    endif()
    string(APPEND bytes "${value},")
    math(EXPR column "${i} % 12")
    if(column EQUAL 11)
        string(APPEND bytes "\n    ")
    endif()
endforeach()

set(content "// Generated at build time. Do not edit.\n#pragma once\n\ninline constexpr char serviceKeyLabel[] = \"${label}\";\ninline constexpr unsigned char serviceKeyBlock[${key_length}] = {\n    ${bytes}\n};\n")
file(WRITE "${OUTPUT}.tmp" "${content}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
