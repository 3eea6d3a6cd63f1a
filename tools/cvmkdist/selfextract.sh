#!/bin/sh
# A Corvane distribution in one file: this POSIX shell script, followed directly by the
# distribution directory (installer, message file, licence, package, SHA256SUMS) as a tar
# archive. cvmkdist writes it; "sh FILE --help" tells what it does.
#
# Nothing is written before the archive has been checked against the SHA-256 below: first the
# file's size, then the digest of the archive. Then the archive is unpacked into a new private
# directory under TMPDIR and that directory's installer is started by its absolute path, from
# the directory the user is in (so that setup.ini there is read), with standard input, output
# and the terminal as they are. The private directory is removed afterwards, also when an
# interrupt, a hangup or a termination signal ends the run.
#
# Every expansion is quoted: TMPDIR, the target and this file's own name may hold blanks,
# quotes, dollar signs or line breaks. The archive is read straight from this file, behind the
# header, on a descriptor of its own, never through the shell that runs this script.

# Filled in by cvmkdist.
archive_sha256='@ARCHIVE_SHA256@'
archive_bytes='@ARCHIVE_BYTES@'
header_bytes='@HEADER_BYTES@'

me=$0
case $me in
    /*) self=$me ;;
    *) self=./$me ;;
esac
private=
keep=0

say() {
    printf '%s: %s\n' "$me" "$*" >&2
}

usage() {
    printf '%s\n' \
        "Usage: sh $me [OPTION]... [-- INSTALLER-ARGUMENT...]" \
        "Installs Corvane from this one file: checks its SHA-256, unpacks the distribution into a" \
        "private directory under TMPDIR (default /tmp), starts the installer there from the current" \
        "directory (so that setup.ini here is read) with the arguments after --, and removes the" \
        "directory when the installer ends. The exit status is the installer's." \
        "" \
        "  --check       check the SHA-256 only; exit status 0 when it matches, 1 when not" \
        "  --list        list the files of the distribution" \
        "  --target DIR  unpack the distribution into DIR (created if missing), start nothing" \
        "  --keep        keep the private directory after the installer ends, and say where" \
        "  --help        show this text" \
        "" \
        "Example: printf '\\nyes\\n' | sh $me -- -destination-dir /opt/corvane -post-install"
}

usage_error() {
    say "$1"
    say "Try: sh $me --help"
    exit 2
}

damaged() {
    say "the file is damaged: $1."
    say "Nothing was unpacked. Fetch it again and check it with: sha256sum -c ${me##*/}.sha256"
    exit 1
}

# Runs the command with the archive on its standard input: this file, read from behind the
# header (one read of exactly the header's size moves the shared file offset there).
from_archive() {
    { dd bs="$header_bytes" count=1 of=/dev/null 2>/dev/null && "$@"; } <"$self"
}

# The fastest digest program there is: openssl uses the processor's SHA instructions.
pick_digest() {
    for digest in openssl sha256sum shasum; do
        command -v "$digest" >/dev/null 2>&1 && return 0
    done
    say "cannot check $me: none of openssl, sha256sum or shasum is installed."
    exit 1
}

archive_digest() {
    case $digest in
        openssl) from_archive openssl dgst -sha256 -r ;;
        sha256sum) from_archive sha256sum ;;
        *) from_archive shasum -a 256 ;;
    esac
}

verify() {
    if [ ! -f "$self" ] || [ ! -r "$self" ]; then
        say "cannot read $me; start it by its file name, as: sh FILE"
        exit 1
    fi
    size=$(wc -c <"$self" | tr -d ' ') || exit 1
    total=$((header_bytes + archive_bytes))
    if [ "$size" -lt "$total" ]; then
        damaged "it is cut short ($size of $total bytes)"
    elif [ "$size" -gt "$total" ]; then
        damaged "it has $((size - total)) bytes more than the $total it was made with"
    fi
    pick_digest
    sum=$(archive_digest) || {
        say "cannot compute the SHA-256 of $me with $digest."
        exit 1
    }
    sum=${sum%% *}
    if [ "$sum" != "$archive_sha256" ]; then
        damaged "the SHA-256 of its archive is $sum, not $archive_sha256"
    fi
}

unpack() {
    from_archive tar -xf - -b 256 -C "$1" || {
        say "cannot unpack the distribution into $1."
        return 1
    }
}

# Removes the private directory, or with --keep says where it is.
finish() {
    if [ -n "$private" ]; then
        if [ "$keep" = 1 ]; then
            say "the distribution stays in $private"
        else
            rm -rf -- "$private"
        fi
        private=
    fi
}

# After the clean-up the shell ends by the same signal, so that its caller sees why. Only the
# traps call this, which shellcheck cannot see.
# shellcheck disable=SC2317
on_signal() {
    finish
    trap - "$1"
    kill -s "$1" "$$"
    exit $((128 + $2))
}

# 0 when a program in the directory can be started: not so on a file system mounted noexec.
can_execute_in() {
    printf '#!/bin/sh\n' >"$1/.probe" && chmod 700 "$1/.probe" && "$1/.probe" 2>/dev/null
    probe_status=$?
    rm -f -- "$1/.probe"
    return "$probe_status"
}

install() {
    verify
    base=${TMPDIR:-/tmp}
    trap 'on_signal INT 2' INT
    trap 'on_signal TERM 15' TERM
    trap 'on_signal HUP 1' HUP
    private=$(mktemp -d "$base/corvane.XXXXXXXXXX") || {
        say "cannot make a private directory in $base (TMPDIR)."
        say "Set TMPDIR to a directory where you may write: TMPDIR=DIR sh $me"
        exit 1
    }
    case $private in
        /*) ;;
        *) private=$(cd "./$private" && pwd -P) || exit 1 ;;
    esac
    if ! can_execute_in "$private"; then
        say "programs cannot be started from $base (TMPDIR): its file system is mounted noexec."
        say "Choose another directory: TMPDIR=DIR sh $me"
        say "or unpack with: sh $me --target DIR, and start DIR/cvinst from here."
        finish
        exit 1
    fi
    unpack "$private" || {
        finish
        exit 1
    }
    "$private/cvinst" "$@"
    status=$?
    finish
    return "$status"
}

main() {
    action=install
    target=
    while [ $# -gt 0 ]; do
        case $1 in
            --check | --list | --target)
                [ "$action" = install ] || usage_error "--${action} and $1 exclude each other."
                action=${1#--}
                if [ "$1" = --target ]; then
                    [ $# -ge 2 ] || usage_error "--target needs a directory."
                    target=$2
                    shift
                fi
                ;;
            --keep) keep=1 ;;
            --help | -h)
                usage
                exit 0
                ;;
            --)
                shift
                break
                ;;
            *) usage_error "unknown option '$1' (the installer's own options go after --)." ;;
        esac
        shift
    done
    if [ "$action" != install ]; then
        [ "$keep" = 0 ] || usage_error "--keep goes only with an installation."
        [ $# -eq 0 ] || usage_error "--$action starts no installer: nothing may follow --."
    fi
    case $action in
        install) install "$@" ;;
        check)
            verify
            printf '%s: OK (SHA-256 %s)\n' "$me" "$archive_sha256"
            ;;
        list)
            verify
            from_archive tar -tvf -
            ;;
        target)
            verify
            mkdir -p -- "$target" || exit 1
            unpack "$target" || exit 1
            printf '%s\n' "Unpacked into $target; to install, start $target/cvinst."
            ;;
    esac
}

main "$@"
exit
