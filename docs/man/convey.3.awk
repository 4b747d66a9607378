# Writes convey(3), in scdoc, from convey.h: its first comment, and each comment with what it is about.

function escaped(text) {
    gsub(/[*_\\]/, "\\\\&", text)
    return text
}

function flush() {
    if (declarations != "") {
        printf "%s", declarations
        if (comment != "") {
            printf "\t%s\n\n", escaped(comment)
        }
    }
    declarations = ""
}

BEGIN {
    print "convey(3)\n\n# NAME\n\nconvey - take part in the messaging between applications, in C\n"
    print "# SYNOPSIS\n\n*#include <convey.h>*\n"
    print "*cc* _program.c_ *$(pkg-config --cflags --libs convey)*\n\n# DESCRIPTION\n"
}

# The file's own comment, in paragraphs.
FNR == 1 { about = 1 }
about {
    done = sub(/ *\*\/$/, "")
    sub(/^(\/\*| \*) ?/, "")
    print escaped($0)
    if (done) {
        about = 0
        print "\n# WHAT IT IS MADE OF\n"
    }
    next
}

/^(#ifndef|#ifdef|#if|#else|#endif|#include|extern "C"|}|#define CONVEY_H$|#define CONVEY_API)/ { next }

/^\/\* .*--- \*\/$/ {
    flush()
    sub(/^\/\* /, "")
    sub(/\. -+ \*\/$/, "")
    sub(/:? -+ \*\/$/, "")
    heading = toupper($0)
    rest = ""
    if (match(heading, /\. /)) { # what holds for all of a section
        rest = substr($0, RSTART + 2)
        heading = substr(heading, 1, RSTART - 1)
    }
    print "# " heading "\n"
    if (rest != "") {
        print escaped(rest) "\n"
    }
    comment = ""
    next
}

# A comment begins what follows, up to the next one.
/^\/\*/ || in_comment {
    if (!in_comment) {
        flush()
        comment = ""
    }
    in_comment = !sub(/ *\*\/$/, "")
    sub(/^(\/\*| \*) */, "")
    comment = comment (comment == "" ? "" : " ") $0
    next
}

/^$/ { next }

# A declaration, which may have several lines, and a constant, which has its own comment behind it.
{
    sub(/^CONVEY_API /, "")
    sub(/^ +/, "")
    meaning = ""
    if (/^#define/ && match($0, / +\/\* /)) {
        meaning = substr($0, RSTART + RLENGTH)
        sub(/ \*\/$/, "", meaning)
        $0 = substr($0, 1, RSTART - 1)
    }
    declaration = declaration (declaration == "" ? "" : " ") $0
    if (/;$/ || /^#define/) {
        declarations = declarations "*" escaped(declaration) "*" \
            (meaning == "" ? "" : " (" escaped(meaning) ")") "\n\n"
        declaration = ""
    }
}

END {
    flush()
    print "# SEE ALSO\n\n*convey*(1), *convey-specifier*(7)"
}
