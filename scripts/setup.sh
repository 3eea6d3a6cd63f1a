#!/usr/bin/env bash
# Installs the packages that building and testing need (Debian, as root). Only what is missing.
# openssh-server, sudo and acl: the Ansible test's own sshd with a sudo user; ansible-lint: CI's
# check of the role.
set -euo pipefail
need=()
for pkg in g++ cmake make zlib1g-dev libx11-dev libssl-dev nlohmann-json3-dev libgtest-dev xvfb xauth zip unzip tar gzip util-linux procps \
           clang clang-format clang-tidy libclang-rt-14-dev libbenchmark-dev ansible-core git \
           gnupg gpgv openssl shellcheck gnuplot-nox python3 scdoc \
           openssh-server openssh-client sudo acl ansible-lint; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${need[@]}"
fi
