# The common part of the stand-ins. Each sources this, with the name of its data file in $variables.

if [ $# -ne 2 ] || [ "$1" != -n ]; then
    echo "usage: ${0##*/} -n NAME" >&2
    exit 2
fi
if ! [ -r "$variables" ]; then
    echo "${0##*/}: no file with variables: '$variables'" >&2
    exit 1
fi
while IFS= read -r line || [ -n "$line" ]; do
    # A name ends at the first "=" of its line, so a name that contains "=" is never found.
    value=${line#*=}
    if [ "$line" = "$2=$value" ]; then
        printf '%s\n' "$value"
        exit 0
    fi
done <"$variables"
echo "${0##*/}: no variable '$2'" >&2
exit 1
