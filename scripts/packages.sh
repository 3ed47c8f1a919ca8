# shellcheck shell=bash disable=SC2034
# The Debian packages that each command needs. Configuring looks for the tests' libraries.

BUILD_PACKAGES=(
  g++ cmake ninja-build pkg-config git
  libfmt-dev libcli11-dev libpcsclite-dev libcacard-dev libnss3-dev libsystemd-dev
  nlohmann-json3-dev
  libgtest-dev libgmock-dev python3
  dpkg-dev file
)
RUN_PACKAGES=(
  pcscd opensc opensc-pkcs11 pcsc-tools libnss3-tools openssl openssh-client util-linux
)
MODEL_PACKAGES=(
  spin gcc libc6-dev
)
TEST_PACKAGES=(
  debhelper lintian python3-pyscard python3-yaml shellcheck libbenchmark-dev procps zsh
  "${MODEL_PACKAGES[@]}"
  # Programs whose use of the card is tested.
  chromium curl firefox-esr gnupg-pkcs11-scd gnutls-bin gpg gpg-agent gpgsm libengine-pkcs11-openssl
  openssh-server scdaemon
)
# Packages for making the Debian package.
PACKAGE_PACKAGES=(
  "${BUILD_PACKAGES[@]}" debhelper dpkg-dev
)
LINT_PACKAGES=(
  clang clang-tidy clang-format shellcheck
)
BENCH_PACKAGES=(
  strace
)
WINDOWS_PACKAGES=(
  g++-mingw-w64-x86-64-posix wine wine64 googletest osslsigncode openssl
  # Without it one start of a program in a few thousand fails with ERROR_INTERNAL_ERROR (1359), or
  # without a word, because the kernel has put the heap at the address of Windows' shared data.
  wine64-preloader
)
