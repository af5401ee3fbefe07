# Sourced by the other scripts with their arguments. Asked for help, prints the comment at the script's
# head, which is its usage, and ends it.
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
case ${1-} in
-h | --help)
    usage
    exit
    ;;
esac

# install_missing PACKAGE...: installs those of Debian's packages that are not there yet; says nothing
# when all are.
install_missing() {
    local package missing=() as_root=()
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
            missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        if ! type sudo >/dev/null 2>&1; then
            printf '%s: packages are missing. As root:\n  apt-get update && apt-get install --no-install-recommends %s\n' \
                "$0" "${missing[*]}" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}" >&2
    quietly "${as_root[@]}" apt-get update
    quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"
}

# quietly COMMAND...: what it prints shows only if it fails.
quietly() {
    local output
    output=$("$@" 2>&1) || {
        echo "$output" >&2
        exit 1
    }
}
