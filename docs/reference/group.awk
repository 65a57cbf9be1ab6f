# Doxygen's view of a public header: the opening comment is that of the module, a group, which holds
# everything else. The file itself gets a line.
/^ \* @file / {
    header = $3
    module = header
    sub(/\.h$/, "", module)
    print " * @defgroup " module " tessra/" header
    opening = 1
    next
}
opening && /^ \*\// {
    print
    print "/** @file " header " @brief Interface of @ref " module ". */"
    opening = 0
    next
}
/^#ifndef TESSRA_/ { guard = $2 }
{ print }
/^#define TESSRA_/ && $2 == guard { print "/** @addtogroup " module "\n * @{ */" }
# The last line closes both guard and group.
{ last = $0 }
END { if (last == "#endif") print "/** @} */" }
