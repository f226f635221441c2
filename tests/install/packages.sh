#!/bin/sh
# Runs as root in a Debian system of its own (tools/clean_root), with the tree at /work/pavo and the
# packages in the folder $1: apt installs them, consumers and examples are built against them and
# run, and nothing is left when they are removed.
set -eu

packages=$1
tree=/work/pavo
tests=$tree/tests/install

step() { printf '== %s\n' "$*"; }
quiet() {
    if ! "$@" >/tmp/log 2>&1; then
        cat /tmp/log
        return 1
    fi
}
install() { quiet apt-get -q -y install "$@"; }
# All files but those in which apt and dpkg keep their own state.
files() {
    find / -xdev \( -path /tmp -o -path /var/cache -o -path /var/lib/apt -o -path /var/lib/dpkg \
        -o -path /var/log -o -path /work -o -path /root \) -prune -o -print | sort
}

quiet apt-get -q update
files >/tmp/before

step 'the libraries and the development files install'
for package in libpavo0 libpavo-dev; do
    set -- "$packages/${package}"_*.deb
    cp "$1" /tmp
done
install /tmp/*.deb

step 'a consumer with find_package'
cp -r "$tests" /tmp/consumers
cd /tmp/consumers
quiet cmake -S . -B found
quiet cmake --build found
found/consumer

step 'a consumer with pkg-config and make'
quiet make
./consumer

step 'the examples, as they are installed'
install libpcap-dev
quiet cmake -S /usr/share/doc/libpavo-dev/examples -B /tmp/examples
quiet cmake --build /tmp/examples -j "$(nproc)"
ldd /tmp/examples/pavo-demo | grep libPavo.so.0

step 'removing leaves nothing'
quiet apt-get -q -y remove --purge libpavo0 libpavo-dev libpcap-dev
quiet apt-get -q -y autoremove --purge
files >/tmp/after
diff /tmp/before /tmp/after
if dpkg-query -W 'libpavo*' 2>/dev/null | grep .; then
    exit 1
fi

step 'the documentation installs, opens, and leaves nothing'
if ls "$packages"/libpavo-doc_*.deb >/dev/null 2>&1; then
    cp "$packages"/libpavo-doc_*.deb /tmp/doc.deb
    install /tmp/doc.deb python3
    python3 "$tree/tools/check_docs.py" --html /usr/share/doc/libpavo-dev/html
    quiet apt-get -q -y remove --purge libpavo-doc python3
    quiet apt-get -q -y autoremove --purge
    files | diff /tmp/before -
fi

step 'a consumer that takes the sources in, and one of its build tree'
install libpcap-dev libpcre2-dev nlohmann-json3-dev
quiet cmake -S tree -B in-tree "-DPAVO_SOURCE=$tree" -DPAVO_INSTALL=ON
quiet cmake --build in-tree -j "$(nproc)"
in-tree/consumer
quiet cmake -S . -B from-build "-DPavo_DIR=$PWD/in-tree/_deps/pavo-build"
quiet cmake --build from-build
from-build/consumer
