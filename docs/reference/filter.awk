# How doxygen reads our headers, whose comments are plain: a comment in front of a declaration
# describes it and those that follow without a gap; one behind it describes it alone. Each line stays
# where it is.

# How many brackets a line opens more than it closes.
function brackets(text, opened) {
    gsub(/'.'|"[^"]*"/, "", text)
    opened = gsub(/[{(]/, "", text)
    return opened - gsub(/[})]/, "", text)
}

# The first comment of a C header is about the file.
FNR == 1 && /^\/\*/ {
    sub(/^\/\* /, "/** @file\n * ")
    print
    skipping = 1
    next
}
skipping {
    print
    skipping = !/\*\//
    next
}

# What the compiler is told, and nobody calls.
/^#define CONVEY_API/ || / = delete;$/ {
    print ""
    next
}

# A comment of its own, of either kind.
depth == 0 && (in_comment || /^ *\/\// || (/^ *\/\*/ && !/--- \*\//)) {
    if (!commented) {
        description = ""
    }
    text = $0
    sub(/^ *(\/\/|\/\*|\*) */, "", text)
    if (/^ *\/\*/) {
        sub(/\/\*/, "/**")
        in_comment = 1
    } else if (!in_comment) {
        sub(/\/\//, "///")
    }
    if (/\*\//) {
        sub(/ *\*\/.*/, "", text)
        in_comment = 0
    }
    description = description text " "
    commented = 1
    print
    next
}

{
    # A gap, a heading, and what opens or closes a class end what a description is about.
    if (/^ *$/ || /^#(if|endif|else)/ || /^ *(public|private|protected):/ || /--- \*\//) {
        description = ""
    } else if (starts && !commented && description != "") {
        printf "/** %s*/ ", description
    }
    code = $0
    sub(/ *(\/\/|\/\*).*/, "", code)
    scope = code ~ /^ *(template <.*> )?(class|struct|namespace|enum|extern) .*\{$/ || code ~ /^}/ || code ~ /^ *};$/
    if (!scope && code ~ /[^ ]/) {
        sub(/ \/\/ /, " ///< ")
        sub(/ \/\* /, " /**< ")
    }
    print
    if (scope) {
        description = ""
    } else {
        depth += brackets(code)
    }
    if (code ~ /[^ ]/) {
        starts = depth == 0 && code ~ /([;},]|^#define.*)$/
    }
    commented = 0
}
