#!/bin/sh
# Installs those of the named Debian packages that are not yet there; says so, and is silent where there is nothing to
# do.
#
#   install-packages.sh PACKAGE...
#
# Needs apt, and root or sudo, only where something is missing.
set -eu

missing=
for package in "$@"; do
    state=$(dpkg-query --show --showformat='${db:Status-Abbrev}' "$package" 2> /dev/null || true)
    [ "$state" = 'ii ' ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if ! command -v apt-get > /dev/null; then
    echo "These Debian packages, or what they are elsewhere, are needed:$missing" >&2
    exit 1
fi
root=
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo > /dev/null; then
        echo "As root, please: apt-get install$missing" >&2
        exit 1
    fi
    root=sudo
fi

echo "Installing:$missing"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# shellcheck disable=SC2086 # the list is meant to be split
{
    $root env DEBIAN_FRONTEND=noninteractive apt-get update \
        && $root env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends $missing
} > "$log" 2>&1 < /dev/null || {
    cat "$log"
    echo "The packages could not be installed." >&2
    exit 1
}
