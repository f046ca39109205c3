# SPDX-License-Identifier: Apache-2.0
# Reads a public header and turns each banner
#     /* -----...
#      * Title
#      * -----... */
# into the beginning of a Doxygen group, so that every family of functions gets a page; text between the title and the
# end of the banner becomes the group's. Line for line, so that warnings name the right lines.
function family(title) {
    title = tolower(title)
    gsub(/[^a-z]+/, "_", title)
    return prefix title
}
function group_end() { return open ? "/** @} */ " : "" }

{ gsub(/%/, "\\%") } # register names; a bare % means something to Doxygen

BEGIN { prefix = ARGV[1] ~ /libkorva-proc\.h$/ ? "korva_proc_" : ARGV[1] ~ /libkorva-elf\.h$/ ? "korva_elf_" : "korva_" }

/^\/\* -----+$/ { banner = 1; next_is_title = 1; printf "%s/**\n", group_end(); next }
banner && next_is_title {
    title = substr($0, 4)
    printf " * @defgroup %s %s\n", family(title), title
    next_is_title = 0
    open = 1
    next
}
banner && /^ \* -----+ \*\/$/ { print " * @{ */"; banner = 0; next }
# The last family ends where extern "C" does. These lines are hidden from Doxygen, so the end goes before them.
/^#ifdef __cplusplus$/ && open { print "/** @} */"; open = 0 }
# A header of one family has no banners: everything between the two extern "C" lines is it.
/^extern "C"/ && prefix == "korva_elf_" { only = 1 }
only && /^$/ { print "/** @defgroup korva_elf ELF files */ /** @addtogroup korva_elf */ /** @{ */"; only = 0; open = 1; next }
{ print }
