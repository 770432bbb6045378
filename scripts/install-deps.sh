#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking orvelkit need.
# Idempotent: packages already installed are skipped; apt-get update runs only when
# something must be installed. Safe to run as root or through sudo.
set -euo pipefail

packages=(
  # toolchain
  g++ make cmake ninja-build pkg-config ccache
  # lld: links the library with the request path's functions side by side
  lld
  # library dependencies
  libssl-dev ca-certificates libsimdjson-dev libplist-dev libboost1.81-dev libboost-url1.81-dev
  media-types gettext libpcre2-dev
  # image decoders and pixel conversion
  libspng-dev libjpeg62-turbo-dev libgif-dev libtiff-dev libwebp-dev libpixman-1-dev
  # expat: the XML parser object
  libexpat1-dev
  # ICU: transforms that spell text in ASCII
  libicu-dev
  # input of the domain registry's generated tables
  publicsuffix
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  # libpng: the PNG writer of the image tests and the baseline of the image benchmark
  libpng-dev
  # Boost.JSON: a baseline of the model benchmark
  libboost-json1.81-dev
  # libpsl: the independent reference of the domain registry's tests and its benchmark baseline
  libpsl-dev
  # libmnl: rtnetlink messages for reachability; iproute2: the reachability tests build their
  # networks in private namespaces with `ip`
  libmnl-dev iproute2
  # libcurl: the transport library, and the baseline of the HTTP benchmark's escaping
  libcurl4-openssl-dev
  # the openssl program: tests compare public-key pins with its output
  openssl
  # nginx: the loopback server of the transport benchmark (HTTP/1.1, and HTTP/2 over TLS)
  nginx
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
