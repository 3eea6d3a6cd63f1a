[ "$({ wc -c <"$0"; } 2>/dev/null || echo 0)" -ge 9999999999999999 ] || { if [ -f "$0" ]; then printf '%s: the file is damaged: it is cut short (%s of %s bytes).\n%s: Nothing was unpacked. Fetch it again and check it with: sha256sum -c %s.sha256\n' "$0" "$(wc -c <"$0")" 9999999999999999 "$0" "${0##*/}"; else printf '%s: cannot read this file; start it by its name, as: sh FILE\n' "$0"; fi; exit 1; } >&2
# A Corvane distribution in one file: this POSIX shell script, followed directly by the
# distribution directory (installer, message file, licence, package, SHA256SUMS) as a tar
# archive. cvmkdist writes it; "sh FILE --help" tells what it does.
#
# The first line compares the file's size with the size it was made with before the shell reads
# any further, so a file cut anywhere behind that line stops there with "cut short". Every prefix
# of the first line is an unfinished command (a shell error), a false test or the whole check: no
# cut can write a file or end with status 0. That is also why there is no "#!" line, whose cuts
# would be empty scripts: the file is started as "sh FILE" (a shell also runs "./FILE" itself).
#
# The archive is read once: tee hands it to tar, which unpacks it into a new private directory,
# and through a FIFO to the SHA-256 program. Only when the digest of exactly what tar was given
# matches the one below does anything leave the private directory or start. The private directory
# lies under TMPDIR (or in the --target directory), whose every directory up to / must be one that
# no other user could rename or replace. The installer is started by its absolute path, from the
# directory the user is in (so that setup.ini there is read), with standard input, output and the
# terminal as they are. The private directory is removed afterwards, also when an interrupt, a
# hangup or a termination signal ends the run.
#
# Every expansion is quoted: TMPDIR, the target and this file's own name may hold blanks,
# quotes, dollar signs or line breaks.

# Filled in by cvmkdist.
archive_sha256='@ARCHIVE_SHA256@'
archive_bytes='@ARCHIVE_BYTES@'
header_bytes='@HEADER_BYTES@'
version='@VERSION@'
package='@PACKAGE@'

me=$0
case $me in
    /*) self=$me ;;
    *) self=./$me ;;
esac
private=
keep=0
quiet=0
noexec=0
target=
made_target=
# Archives from this size on show how far the check has come, on a terminal.
progress_from=$((8 * 1024 * 1024))

say() {
    printf '%s: %s\n' "$me" "$*" >&2
}

# Notes on the terminal: the check's progress, unless --quiet.
note() {
    [ "$quiet" = 0 ] && [ -t 2 ] && printf '%b' "$1" >&2
    return 0
}

usage() {
    printf '%s\n' \
        "Usage: sh $me [OPTION]... [-- INSTALLER-ARGUMENT...]" \
        "Installs Corvane $version from this one file: unpacks the distribution into a private" \
        "directory under TMPDIR (default /tmp) while checking its SHA-256, and only when that" \
        "matches starts the installer there from the current directory (so that setup.ini here is" \
        "read) with the arguments after --; the directory is removed when the installer ends. The" \
        "exit status is the installer's. TMPDIR and every directory above it must be writable by" \
        "no other user unless sticky, and owned by root or you." \
        "" \
        "  --check       check the file; print the SHA-256 of the whole file, as in FILE.sha256" \
        "  --info        print the name, version, sizes, digest and what the file runs; check nothing" \
        "  --list        check the file, then list the files of the distribution" \
        "  --noexec      unpack and start nothing: into a private directory under TMPDIR that" \
        "                stays, or with --target into DIR" \
        "  --target DIR  unpack into DIR (created if missing) and start the installer from there;" \
        "                with --noexec only unpack" \
        "  --keep        keep the private directory after the installer ends, and say where" \
        "  --quiet       no progress line on the terminal and no notes; errors are still shown" \
        "  --version     print the version of Corvane in this file" \
        "  --help        show this text" \
        "" \
        "On a terminal a line \"Verifying archive integrity...\" shows the check, with its progress" \
        "for large files. Check the file itself first: sha256sum -c ${me##*/}.sha256" \
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

# The SHA-256 of standard input, as "HEX ..." (the first word).
sha256_of_input() {
    case $digest in
        openssl) openssl dgst -sha256 -r ;;
        sha256sum) sha256sum ;;
        *) shasum -a 256 ;;
    esac
}

# The file must be readable and have the size it was made with (the first line has refused a
# shorter one).
check_size() {
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
}

# Size and digest of the archive, for --check and --list (which unpack nothing).
verify() {
    check_size
    sum=$(from_archive sha256_of_input) || {
        say "cannot compute the SHA-256 of $me with $digest."
        exit 1
    }
    sum=${sum%% *}
    if [ "$sum" != "$archive_sha256" ]; then
        damaged "the SHA-256 of its archive is $sum, not $archive_sha256"
    fi
}

# Refuses a directory in which another user could rename or replace what is made there: the
# directory and each one above it up to / must be owned by root or by the user running this,
# and not writable by group or others unless the sticky bit is set (as /tmp is). $1 is a
# physical absolute path; $2 names it for the message and $3 says how to choose another.
check_owned_path() {
    uid=$(id -u)
    path=$1
    what=$2
    how=$3
    # Usually all is well: one listing of every directory on the path tells (-q: one line each,
    # of which only the mode and the owner are read).
    set --
    dir=$path
    while :; do
        set -- "$dir" "$@"
        [ "$dir" = / ] && break
        dir=${dir%/*}
        [ -n "$dir" ] || dir=/
    done
    # shellcheck disable=SC2012
    if ls -ldnq -- "$@" 2>/dev/null | awk -v uid="$uid" -v n=$# '
        $3 != 0 && $3 != uid { bad = 1 }
        substr($1, 10, 1) !~ /[tT]/ && (substr($1, 6, 1) == "w" || substr($1, 9, 1) == "w") { bad = 1 }
        END { exit bad || NR != n }'; then
        return 0
    fi
    # Else the deepest one that is not, by its own name.
    dir=$path
    while :; do
        # The mode and the owner are the first and third words of the listing; the name may
        # hold blanks or line breaks, but comes behind them.
        listing=$(ls -ldn -- "$dir") || exit 1
        mode=${listing%% *}
        owner=$(printf '%s\n' "$listing" | awk 'NR == 1 { print $3 }')
        problem=
        if [ "$owner" != 0 ] && [ "$owner" != "$uid" ]; then
            problem="belongs to user $owner"
        else
            case $mode in
                ?????????[tT]*) ;;
                ?????w* | ????????w*) problem="may be written by others (mode ${mode%"${mode#??????????}"}) and is not sticky" ;;
            esac
        fi
        if [ -n "$problem" ]; then
            say "refused $what: another user could rename or replace the directory unpacked there, as $dir $problem."
            say "$how"
            [ -z "$made_target" ] || rmdir -- "$made_target" 2>/dev/null
            exit 1
        fi
        [ "$dir" = / ] && return 0
        dir=${dir%/*}
        [ -n "$dir" ] || dir=/
    done
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

# Refuses with the advice for a private directory where the installer cannot be unpacked or
# started.
cannot_use() {
    say "$1"
    if [ -n "$target" ]; then
        say "Choose another directory: sh $me --target DIR"
    else
        say "Choose another directory: TMPDIR=DIR sh $me"
        say "or unpack it elsewhere and install from there: sh $me --target DIR"
    fi
    finish
    [ -z "$made_target" ] || rmdir -- "$made_target" 2>/dev/null
    exit 1
}

# 0 when a program in the directory can be started: not so on a file system mounted noexec.
can_execute_in() {
    printf '#!/bin/sh\n' >"$1/.probe" && chmod 700 "$1/.probe" && "$1/.probe" 2>/dev/null
    probe_status=$?
    rm -f -- "$1/.probe"
    return "$probe_status"
}

# The free kilobytes of the file system that holds the directory, or nothing when df cannot tell.
free_kilobytes() {
    df -Pk -- "$1" 2>/dev/null | awk 'NR == 2 && $4 ~ /^[0-9]+$/ { print $4 }'
}

# Copies standard input to standard output in steps of about a hundredth, showing the share done.
copy_with_progress() {
    blocks=$((archive_bytes / 100 / 65536 + 1))
    copied=0
    while [ "$copied" -lt "$archive_bytes" ]; do
        dd bs=65536 count="$blocks" 2>/dev/null || return 1
        copied=$((copied + blocks * 65536))
        [ "$copied" -lt "$archive_bytes" ] || copied=$archive_bytes
        note "\\rVerifying archive integrity... $((copied * 100 / archive_bytes))%"
    done
    cat
}

# tar's status; what it leaves unread is drained, so that tee always hands the digest all.
untar() {
    tar -xf - -b 256 -C "$1" >/dev/null
    untar_status=$?
    cat >/dev/null
    return "$untar_status"
}

# Unpacks the archive into the private directory $1 in the same read that digests it, and
# refuses it, removing the directory, unless the digest matches.
unpack_checked() {
    fifo=$1/.sha256-fifo
    mkfifo -m 600 "$fifo" || cannot_use "cannot make a FIFO in $1."
    note 'Verifying archive integrity...'
    steps=$( (
        exec 3<"$self" || exit 1
        sha256_of_input <"$fifo" 3<&- &
        if [ "$archive_bytes" -ge "$progress_from" ] && [ "$quiet" = 0 ] && [ -t 2 ]; then
            {
                dd bs="$header_bytes" count=1 of=/dev/null 2>/dev/null
                copy_with_progress | tee -- "$fifo"
            } <&3 3<&- | untar "$1" 3<&-
        else
            {
                dd bs="$header_bytes" count=1 of=/dev/null 2>/dev/null
                tee -- "$fifo"
            } <&3 3<&- | untar "$1" 3<&-
        fi
        echo "unpacked $?"
        wait "$!"
        echo "digested $?"
    ))
    rm -f -- "$fifo"
    sum=
    unpacked=1
    digested=1
    last=
    set -f
    for word in $steps; do
        case $last in
            unpacked) unpacked=$word ;;
            digested) digested=$word ;;
        esac
        case $word in
            ????????????????????????????????????????????????????????????????) sum=$word ;;
        esac
        last=$word
    done
    set +f
    if [ "$digested" != 0 ] || [ -z "$sum" ]; then
        note '\n'
        finish
        [ -z "$made_target" ] || rmdir -- "$made_target" 2>/dev/null
        say "cannot compute the SHA-256 of $me with $digest."
        exit 1
    fi
    if [ "$sum" != "$archive_sha256" ]; then
        note '\n'
        finish
        [ -z "$made_target" ] || rmdir -- "$made_target" 2>/dev/null
        damaged "the SHA-256 of its archive is $sum, not $archive_sha256"
    fi
    note ' OK\n'
    if [ "$unpacked" != 0 ]; then
        cannot_use "cannot unpack the distribution into $1 (tar's messages are above)."
    fi
}

# Moves what the private directory holds into the target directory.
move_to_target() {
    for member in "$private"/* "$private"/.[!.]* "$private"/..?*; do
        [ -e "$member" ] || continue
        mv -f -- "$member" "$1/" || {
            say "cannot move the distribution into $1."
            finish
            exit 1
        }
    done
}

install() {
    check_size
    if [ -n "$target" ]; then
        [ -d "$target" ] || made_target=$target
        mkdir -p -- "$target" || exit 1
        base=$(cd -P -- "$target" && pwd -P) || exit 1
        [ "$noexec" = 1 ] ||
            check_owned_path "$base" "the target $target" "Choose a directory that only you and root can change: sh $me --target DIR"
        pattern=.corvane
        label=
    else
        base=${TMPDIR:-/tmp}
        base=$(cd -P -- "$base" 2>/dev/null && pwd -P) || {
            say "cannot make a private directory in ${TMPDIR:-/tmp} (TMPDIR): it is not a directory you may enter."
            say "Set TMPDIR to a directory where you may write: TMPDIR=DIR sh $me"
            exit 1
        }
        check_owned_path "$base" "TMPDIR=${TMPDIR:-/tmp}" "Set TMPDIR to a directory that only you and root can change: TMPDIR=DIR sh $me"
        pattern=corvane
        label=" (TMPDIR)"
    fi
    trap 'on_signal INT 2' INT
    trap 'on_signal TERM 15' TERM
    trap 'on_signal HUP 1' HUP
    private=$(mktemp -d "$base/$pattern.XXXXXXXXXX") || {
        say "cannot make a private directory in $base$label."
        say "Set TMPDIR to a directory where you may write: TMPDIR=DIR sh $me"
        exit 1
    }
    if [ "$noexec" = 0 ] && ! can_execute_in "$private"; then
        cannot_use "programs cannot be started from $base$label: its file system is mounted noexec."
    fi
    free=$(free_kilobytes "$private")
    needed=$((archive_bytes / 1024 + 64))
    if [ -n "$free" ] && [ "$free" -lt "$needed" ]; then
        cannot_use "there is not enough space in $base$label: $free KB free, the distribution needs $needed KB."
    fi
    unpack_checked "$private"
    where=$private
    if [ -n "$target" ]; then
        move_to_target "$base"
        rmdir -- "$private"
        private=
        where=$base
    fi
    if [ "$noexec" = 1 ]; then
        [ -n "$target" ] && [ "$quiet" = 1 ] ||
            printf '%s\n' "Unpacked into ${target:-$where}; to install, start ${target:-$where}/cvinst."
        private=
        return 0
    fi
    "$where/cvinst" "$@"
    status=$?
    finish
    return "$status"
}

info() {
    printf '%s\n' \
        "Name:    Corvane $version, package $package, in the self-extracting file $me" \
        "Sizes:   $((header_bytes + archive_bytes)) bytes: a $header_bytes-byte header and a $archive_bytes-byte tar archive" \
        "         (unpacked: about as much, in TMPDIR or the --target directory)" \
        "Digest:  SHA-256 of the archive $archive_sha256;" \
        "         the whole file's is in ${me##*/}.sha256 (sh $me --check prints it)" \
        "Runs:    cvinst from a private directory under TMPDIR (${TMPDIR:-/tmp}) once the digest matched," \
        "         in the current directory with the arguments after --; the directory is removed afterwards"
}

main() {
    action=install
    while [ $# -gt 0 ]; do
        case $1 in
            --check | --list | --info | --version)
                [ "$action" = install ] || usage_error "--${action} and $1 exclude each other."
                action=${1#--}
                ;;
            --target)
                [ $# -ge 2 ] || usage_error "--target needs a directory."
                [ -n "$2" ] || usage_error "--target needs a directory."
                target=$2
                shift
                ;;
            --noexec) noexec=1 ;;
            --keep) keep=1 ;;
            --quiet | -q) quiet=1 ;;
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
        if [ -n "$target" ] || [ "$noexec" = 1 ] || [ "$keep" = 1 ]; then
            usage_error "--$action goes with no --target, --noexec or --keep."
        fi
        [ $# -eq 0 ] || usage_error "--$action starts no installer: nothing may follow --."
    elif [ "$noexec" = 1 ]; then
        [ "$keep" = 0 ] || usage_error "--keep goes only with an installation."
        [ $# -eq 0 ] || usage_error "--noexec starts no installer: nothing may follow --."
    elif [ -n "$target" ]; then
        [ "$keep" = 0 ] || usage_error "--keep goes not with --target, whose directory stays."
    fi
    case $action in
        install) install "$@" ;;
        check)
            verify
            whole=$(sha256_of_input <"$self") || exit 1
            printf '%s: OK (SHA-256 of the whole file, as in %s.sha256: %s)\n' "$me" "${me##*/}" "${whole%% *}"
            ;;
        list)
            verify
            from_archive tar -tvf -
            ;;
        info) info ;;
        version) printf 'Corvane %s\n' "$version" ;;
    esac
}

main "$@"
exit
