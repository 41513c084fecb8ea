# Compiles the swap script body into the updater as a byte array, so the
# shipped binary carries the script and the repository keeps one readable,
# lintable copy. Inputs: INPUT, OUTPUT, BUNDLE_ID.
file(READ "${INPUT}" body)
string(REPLACE "@VELMORA_BUNDLE_ID@" "${BUNDLE_ID}" body "${body}")
file(WRITE "${OUTPUT}.body" "${body}")
file(READ "${OUTPUT}.body" hex HEX)
file(REMOVE "${OUTPUT}.body")
string(LENGTH "${hex}" hex_length)
math(EXPR size "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){16})" "\\1\n    " bytes "${bytes}")
set(content "// Generated from ${INPUT}. Do not edit.\n#pragma once\n\ninline constexpr unsigned char velmoraSwapScriptBody[${size}] = {\n    ${bytes}\n};\n")
file(WRITE "${OUTPUT}.tmp" "${content}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
