# Reads a public header and writes it as Doxygen wants it: its filter, and nothing else's.
#
#   opening comment of the file              its description
#   comment right before declarations        the description of each up to the next blank line
#   comment with a blank line behind it      more of the file's description
#   comment behind a field, a value, a type  its description
#
# Texts are plain: what Doxygen would take for markup is escaped, lines that are indented further
# (diagrams, tables) stay as they are, and each name of the library becomes a reference that must
# resolve.

function escaped(text,   out, before, name, mark)
{
    gsub(/[\\@&$#<>%*]/, "\\\\&", text)
    out = ""
    while (match(text, /(OV|rtc)_[A-Za-z0-9_]*[A-Za-z0-9]/)) {
        before = substr(text, 1, RSTART - 1)
        name = substr(text, RSTART, RLENGTH)
        text = substr(text, RSTART + RLENGTH)
        mark = "#"
        if (before ~ /[A-Za-z0-9_\/.]$/ || text ~ /^(_|\([^)])/ || name == "OV_RCU_INLINE") {
            mark = "" # part of another name, a call with its arguments, the user's own macro
        }
        out = out before mark name
    }
    return out text
}

# The comment that was read, as a description that starts with Head.
function description(head,   i, line, drawn, indented, result)
{
    result = "/**" head "\n"
    drawn = 0
    for (i = 1; i <= count; i++) {
        line = lines[i]
        indented = line ~ /^  / && (drawn || i == 1 || lines[i - 1] == "")
        if (indented || (drawn && line == "" && lines[i + 1] ~ /^  /)) {
            result = result (drawn ? "" : "@verbatim\n") line "\n"
            drawn = 1
        } else {
            result = result (drawn ? "@endverbatim\n" : "") escaped(line) "\n"
            drawn = 0
        }
    }
    return result (drawn ? "@endverbatim\n" : "") "*/"
}

# Prints the comment that was read, now that it is known what follows.
function settle(next_line)
{
    if (!pending) {
        return
    }
    pending = 0
    shared = ""
    previous = ""
    if (opening) {
        opening = 0
        print description(" @file")
    } else if (next_line == "") {
        print description(" @file\n@details")
    } else if (next_line !~ /^static_assert/) {
        shared = description("")
    }
}

BEGIN { opening = 1 }

# A comment at the start of a line, of one line or more.
!inside && depth == 0 && /^\/\*/ {
    settle("another")
    inside = 1
    count = 0
    sub(/^\/\*/, " *")
}

inside {
    last = sub(/ *\*\/ *$/, "")
    sub(/^ \* ?/, "")
    if ($0 != "" || (count > 0 && !last)) {
        lines[++count] = $0
    }
    if (last) {
        inside = 0
        pending = 1
    }
    next
}

{
    settle($0)
    if ($0 == "") {
        shared = ""
    }
    if (shared != "" && fresh(previous) && $0 !~ /^(# *(if|endif|else|include)|OV_(PUBLIC|EXTERN_C)_|}| )/) {
        print shared
    }
}

# Behind a field, an enumerator, a type or a constant; elsewhere comments are the compiler's.
!body && !trailing && /[^ ].* \/\* / && !/^# *if/ {
    start = index($0, "/* ")
    code = substr($0, 1, start - 1)
    printf "%s/**< ", code
    track(code)
    $0 = substr($0, start + 3)
    trailing = 1
}

trailing {
    trailing = !sub(/ *\*\/ *$/, "")
    print escaped($0) (trailing ? "" : " */")
    next
}

{
    print
    track($0)
}

# Whether a declaration may start after a line of code.
function fresh(line)
{
    return depth == 0 && (line == "" || line ~ /[;}] *$/ || line ~ /^(#|OV_EXTERN)/)
}

# Notes that a line of code was printed.
function track(code)
{
    body = body || (depth == 0 && code ~ /^[{]/)
    depth += gsub(/[{]/, "{", code) - gsub(/}/, "}", code)
    body = body && depth > 0
    previous = code
}
