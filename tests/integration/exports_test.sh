# tests/integration/exports_test.sh NM LIBRARY NAMES - the symbols of the built library against the list of all names.
set -eu
"$1" -D --defined-only --with-symbol-versions "$2" | awk -v names="$3" '
    function bad(what) { print $3, what; failed = 1 }
    BEGIN {
        for (getline line < names; (getline line < names) > 0;) wanted[substr(line, 1, index(line, "\t") - 1)] = 0
    }
    $2 == "A" { next }  # the version nodes themselves
    # Two signs mark the default version; a name with one would be unreachable for the linker.
    { split($3, part, "@@"); name = part[1]; node = part[2] }
    node == "ZVXKVT_PRIVATE" && name ~ /^(Zvx|zvx_)/ { next }
    $2 != "T" { bad("is no function") }
    node == "ZVXKVT_3.1" && name in wanted { wanted[name]++; next }
    node != "ZVXKVT_OS" || name in wanted { bad("is not on the list, or under another node") }
    END {
        for (name in wanted) if (wanted[name] != 1) { print name, "is not in the library"; failed = 1 }
        exit failed || length(wanted) != 118
    }'
