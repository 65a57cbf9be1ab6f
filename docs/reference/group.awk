# Filters a public header for Doxygen. The opening comment becomes that of a group, the module, which
# holds everything else. The file itself gets a line that refers to the group.
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
# The last line closes both the include guard and the group.
{ last = $0 }
END { if (last == "#endif") print "/** @} */" }
