# SPDX-License-Identifier: Apache-2.0
#
# Makes a source of the page's files: their texts, and of style and script the hash that a Content-Security-Policy names.
#   cmake -D FOLDER=... -D OUTPUT=... -P embed.cmake

# The SHA-256 of a file in base64: three hexadecimal digits are two letters.
function(hash_of file result)
    set(letters ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
    file(SHA256 ${file} digits)
    string(APPEND digits 00)
    set(text "")
    foreach(at RANGE 0 63 3)
        string(SUBSTRING ${digits} ${at} 3 three)
        math(EXPR high "0x${three} / 64")
        math(EXPR low "0x${three} % 64")
        string(SUBSTRING ${letters} ${high} 1 first)
        string(SUBSTRING ${letters} ${low} 1 second)
        string(APPEND text ${first}${second})
    endforeach()
    string(SUBSTRING ${text} 0 43 text)
    set(${result} "sha256-${text}=" PARENT_SCOPE)
endfunction()

set(source "// Made by embed.cmake.\n#include \"report/page_text.h\"\n\nnamespace korva::program\n{\n\n")
foreach(part HTML:html STYLE:css SCRIPT:js)
    string(REGEX MATCH "(.+):(.+)" unused ${part})
    set(file ${FOLDER}/page.${CMAKE_MATCH_2})
    set(name ${CMAKE_MATCH_1})
    file(READ ${file} text)
    string(FIND "${text}" ")page\"" ending)
    string(FIND "${text}" "</s" tag) # would end the element that style and script stand in
    if(NOT ending EQUAL -1 OR (NOT tag EQUAL -1 AND NOT name STREQUAL HTML))
        message(FATAL_ERROR "${file} cannot be embedded")
    endif()
    string(APPEND source "const std::string_view PAGE_${name} = R\"page(${text})page\";\n")
    if(NOT name STREQUAL HTML)
        hash_of(${file} hash)
        string(APPEND source "const std::string_view PAGE_${name}_HASH = \"${hash}\";\n")
    endif()
endforeach()
file(WRITE ${OUTPUT} "${source}\n} // namespace korva::program\n")
