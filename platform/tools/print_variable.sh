# What the stand-ins have in common; each sources this with the name of its file in $variables.

if [ $# -ne 2 ] || [ "$1" != -n ]; then
    echo "usage: ${0##*/} -n NAME" >&2
    exit 2
fi
if ! [ -r "$variables" ]; then
    echo "${0##*/}: no file with variables: '$variables'" >&2
    exit 1
fi
while IFS= read -r line || [ -n "$line" ]; do
    case $line in
        "$2="*)
            printf '%s\n' "${line#*=}"
            exit 0
            ;;
    esac
done <"$variables"
echo "${0##*/}: no variable '$2'" >&2
exit 1
