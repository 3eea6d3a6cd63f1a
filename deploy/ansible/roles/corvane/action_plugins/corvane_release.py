# Checks a host's settings and the Corvane release on the control machine before any host is
# touched, and describes the release for the role:
#
#   corvane_release:
#     run_file: /srv/corvane/corvane-10.0.run   # the release, one of the two:
#     dist_dir: ""                              # or a distribution directory
#     keyring: /srv/corvane/release-key.gpg     # optional: the signature must verify with it
#     settings: {state: present, accept_license: true, install_dir: /opt/corvane,
#                work_dir: /var/tmp, eclipse_dir: ""}
#
# Settings that cannot work (an unknown state, the licence agreement not accepted for present,
# relative or equal directories) are handed on as "refused": the role then leaves the host alone
# and reports the reason at the end. Nothing else is looked at for such a host.
#
# A self-extracting file FILE must match the SHA-256 in FILE.sha256 beside it; with a keyring,
# FILE.sig must verify with gpgv against that keyring alone. The first time a release (by that
# SHA-256) is seen it is unpacked with its own --target (which checks its embedded archive too),
# and its description and cvcheck, which the role sends each host, are kept in
# ~/.cache/corvane-ansible/<SHA-256>/ for later runs. A distribution directory must pass sha256sum -c of its SHA256SUMS (and with
# a keyring SHA256SUMS.sig must verify); it is packed into one tar file, which is what its hosts
# receive. A release that fails any of this fails the task (the role makes that end the play).
#
# The result: kind (editor or plugin, by the package the installer will take), package,
# list_sha256 (the SHA-256 of the package's file list, which an installation keeps as its dated
# list), name (the file name without .run, or the directory's), payload and checker (src, name and sha256 for corvane_ship), start (run or dir).
#
# Every host of a play calls this for its own release; the work is done once per release and
# ansible-playbook run, and the other hosts read the outcome (a refusal included). It lives in
# Ansible's private temporary directory on the control machine, which ansible-playbook removes
# when it ends; a lock serialises the hosts that ask at the same time.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import fcntl
import hashlib
import json
import os
import re
import shutil
import subprocess
import tarfile
import tempfile

import ansible.constants as C
from ansible.module_utils.parsing.convert_bool import boolean
from ansible.plugins.action import ActionBase

# The order in which the installer takes the first package that exists.
PACKAGES = ('cvpackd', 'cvpackepd', 'cvpacku', 'cvpackep', 'cvpack')
NOTHING_SENT = 'Nothing was sent to any host.'
# The form of the descriptions kept in the release cache; one of another form is made anew.
CACHE_FORM = 1


class Refusal(Exception):
    pass


def sha256_of(path):
    digest = hashlib.sha256()
    with open(path, 'rb') as stream:
        for block in iter(lambda: stream.read(1 << 20), b''):
            digest.update(block)
    return digest.hexdigest()


def run(argv, cwd=None):
    """Runs a program; its exit status and its output (both streams)."""
    try:
        done = subprocess.run(argv, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
    except OSError as error:
        return 127, '%s: %s' % (argv[0], error.strerror)
    return done.returncode, done.stdout.decode('utf-8', 'replace').strip()


def check_signature(keyring, signature, signed):
    if not os.path.isfile(signature):
        raise Refusal('corvane_keyring is set, but there is no signature %s. %s' % (signature, NOTHING_SENT))
    status, output = run(['gpgv', '--keyring', os.path.abspath(keyring), signature, signed])
    if status != 0:
        said = ' '.join(re.sub(r'^gpgv:\s*', '', line) for line in output.splitlines()[-2:])
        raise Refusal('The signature %s does not verify with the keyring %s (gpgv: %s). %s'
                      % (signature, keyring, re.sub(r'\s+', ' ', said), NOTHING_SENT))


def list_sha256(package):
    """SHA-256 of the package's file list, its first member; '' when it has none."""
    try:
        with tarfile.open(package, 'r|gz') as archive:
            for member in archive:
                if member.isfile() and member.name.lstrip('./') == 'distribfilelist':
                    return hashlib.sha256(archive.extractfile(member).read()).hexdigest()
    except (OSError, tarfile.TarError):
        pass
    return ''


def describe(dist):
    package = next((p for p in PACKAGES if os.path.isfile(os.path.join(dist, p))), None)
    if package is None:
        raise Refusal('%s holds no package (%s). %s' % (dist, ', '.join(PACKAGES), NOTHING_SENT))
    checker = os.path.join(dist, 'cvcheck')
    if not os.path.isfile(checker):
        raise Refusal('%s holds no cvcheck, which the role runs on each host to check the installation '
                      '(cvmkdist --checker puts it there). %s' % (dist, NOTHING_SENT))
    return {
        'kind': 'plugin' if package.startswith('cvpackep') else 'editor',
        'package': package,
        'list_sha256': list_sha256(os.path.join(dist, package)),
        'checker': {'src': checker, 'name': 'cvcheck', 'sha256': sha256_of(checker)},
    }


def prepare_run_file(path, keyring, work):
    sums = path + '.sha256'
    try:
        with open(sums, encoding='utf-8', errors='replace') as stream:
            line = stream.readline()
    except OSError as error:
        raise Refusal('cannot read %s, the SHA-256 that comes with %s: %s. %s'
                      % (sums, path, error.strerror, NOTHING_SENT))
    found = re.match(r'([0-9a-fA-F]{64}) [ *](.*)$', line.rstrip('\n'))
    if not found or found.group(2) != os.path.basename(path):
        raise Refusal('%s is not the sha256sum line of %s. %s' % (sums, os.path.basename(path), NOTHING_SENT))
    expected = found.group(1).lower()
    if keyring:
        check_signature(keyring, path + '.sig', path)
    actual = sha256_of(path)
    if actual != expected:
        raise Refusal('%s is damaged: its SHA-256 is %s, not %s as %s says. %s'
                      % (path, actual, expected, sums, NOTHING_SENT))
    release = unpacked_release(path, expected, work)
    release.update(start='run', payload={'src': path, 'name': os.path.basename(path), 'sha256': expected},
                   name=re.sub(r'\.run$', '', os.path.basename(path)))
    return release


def release_cache():
    """Where unpacked releases are kept between runs: ~/.cache/corvane-ansible, or '' when unusable."""
    root = os.path.join(os.environ.get('XDG_CACHE_HOME') or os.path.expanduser('~/.cache'), 'corvane-ansible')
    try:
        os.makedirs(root, mode=0o700, exist_ok=True)
    except OSError:
        return ''
    return root if os.access(root, os.W_OK) else ''


def unpacked_release(path, digest, work):
    """The description of the checked self-extracting file whose SHA-256 is digest, its cvcheck
    kept in the release cache under that digest: a release is unpacked once, not in every run."""
    cache = release_cache()
    kept = os.path.join(cache, digest) if cache else ''
    if kept and os.path.isfile(os.path.join(kept, 'release.json')):
        with open(os.path.join(kept, 'release.json')) as stream:
            release = json.load(stream)
        checker = release.get('checker', {}).get('src', '')
        if (release.get('form') == CACHE_FORM and os.path.isfile(checker)
                and sha256_of(checker) == release['checker']['sha256']):
            return release
    dist = os.path.join(work, 'dist')
    status, output = run(['sh', path, '--noexec', '--target', dist])
    if status != 0:
        raise Refusal('%s did not unpack: %s. %s' % (path, output, NOTHING_SENT))
    release = describe(dist)
    if not kept:
        return release
    # Only what the role needs stays: the description and the checker.
    release['form'] = CACHE_FORM
    staged = tempfile.mkdtemp(dir=cache)
    os.rename(release['checker']['src'], os.path.join(staged, 'cvcheck'))
    release['checker']['src'] = os.path.join(kept, 'cvcheck')
    with open(os.path.join(staged, 'release.json'), 'w') as stream:
        json.dump(release, stream)
    shutil.rmtree(kept, ignore_errors=True)
    try:
        os.rename(staged, kept)
    except OSError:  # another run put it there first
        shutil.rmtree(staged, ignore_errors=True)
    return release


def prepare_dist_dir(path, keyring, work):
    if not os.path.isfile(os.path.join(path, 'cvinst')):
        raise Refusal('%s is not a distribution directory (it holds no cvinst). %s' % (path, NOTHING_SENT))
    sums = os.path.join(path, 'SHA256SUMS')
    if keyring:
        check_signature(keyring, sums + '.sig', sums)
    if os.path.isfile(sums):
        status, output = run(['sha256sum', '--check', '--strict', '--quiet', 'SHA256SUMS'], cwd=path)
        if status != 0:
            raise Refusal('%s does not match its SHA256SUMS: %s. %s' % (path, output, NOTHING_SENT))
    release = describe(path)
    packed = os.path.join(work, 'dist.tar')
    status, output = run(['tar', '-cf', packed, '-C', path, '.'])
    if status != 0:
        raise Refusal('cannot pack %s: %s. %s' % (path, output, NOTHING_SENT))
    release.update(start='dir', payload={'src': packed, 'name': 'dist.tar', 'sha256': sha256_of(packed)},
                   name=os.path.basename(os.path.normpath(path)))
    return release


def identity(path, keyring):
    """What the outcome depends on: the files' names, sizes, times and inodes."""
    def stat_of(name):
        try:
            info = os.stat(name)
        except OSError:
            return None
        return [name, info.st_size, info.st_mtime_ns, info.st_ino]
    names = [path, path + '.sha256', path + '.sig']
    if os.path.isdir(path):
        names = [os.path.join(path, entry) for entry in sorted(os.listdir(path))]
    if keyring:
        names.append(os.path.abspath(keyring))
    key = json.dumps([os.path.realpath(path), keyring, [stat_of(n) for n in names]])
    return hashlib.sha256(key.encode('utf-8', 'surrogateescape')).hexdigest()[:32]


def settings_problem(settings):
    """The first thing wrong with a host's settings, or ''."""
    state = settings.get('state')
    install = (settings.get('install_dir') or '').rstrip('/')
    work = (settings.get('work_dir') or '').rstrip('/')
    eclipse = settings.get('eclipse_dir') or ''
    if state not in ('present', 'absent', 'verified'):
        return 'corvane_state must be present, absent or verified, not "%s".' % state
    if state == 'present' and not boolean(settings.get('accept_license'), strict=False):
        return ('The Corvane licence agreement has not been accepted: read license.txt in the distribution '
                'directory and set corvane_accept_license=true to install. Nothing was installed.')
    if not (install.startswith('/') and work.startswith('/') and install != work):
        return ('corvane_install_dir and corvane_work_dir must be two different absolute paths, and not / '
                '(now "%s" and "%s").' % (settings.get('install_dir'), settings.get('work_dir')))
    if eclipse and not eclipse.startswith('/'):
        return 'corvane_eclipse_dir must be an absolute path (now "%s").' % eclipse
    return ''


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(('run_file', 'dist_dir', 'keyring', 'settings'))

    def run(self, tmp=None, task_vars=None):
        result = super(ActionModule, self).run(tmp, task_vars)
        args = self._task.args
        refused = settings_problem(args.get('settings') or {})
        if refused:
            result.update(changed=False, refused=refused)
            return result
        run_file, dist_dir = args.get('run_file') or '', args.get('dist_dir') or ''
        keyring = args.get('keyring') or ''
        if bool(run_file) == bool(dist_dir):
            result.update(failed=True, msg='Give the release as corvane_run_file (the .run on the control machine) '
                                           'or as corvane_dist_dir (a distribution directory there), one of the two. '
                                           + NOTHING_SENT)
            return result
        source = run_file or dist_dir
        cache = os.path.join(C.DEFAULT_LOCAL_TMP, 'corvane-release-' + identity(source, keyring))
        os.makedirs(cache, mode=0o700, exist_ok=True)
        with open(os.path.join(cache, 'lock'), 'w') as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            outcome_file = os.path.join(cache, 'outcome.json')
            if os.path.exists(outcome_file):
                with open(outcome_file) as stream:
                    outcome = json.load(stream)
            else:
                outcome = self._prepare(source, keyring, cache)
                with open(outcome_file, 'w') as stream:
                    json.dump(outcome, stream)
        if 'refused' in outcome:
            result.update(failed=True, msg=outcome['refused'])
            return result
        result.update(outcome, changed=False, refused='')
        return result

    @staticmethod
    def _prepare(source, keyring, cache):
        work = tempfile.mkdtemp(dir=cache)
        try:
            if os.path.isdir(source):
                release = prepare_dist_dir(source, keyring, work)
            elif os.path.isfile(source):
                release = prepare_run_file(source, keyring, work)
            else:
                raise Refusal('%s is neither a self-extracting file nor a distribution directory on the '
                              'control machine. %s' % (source, NOTHING_SENT))
        except Refusal as refusal:
            return {'refused': str(refusal)}
        release['source'] = source
        release['signature'] = 'verified with %s' % keyring if keyring else 'not checked'
        return release
