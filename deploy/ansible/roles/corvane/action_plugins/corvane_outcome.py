# What the role makes of the host's answers, on the control machine:
#
#   corvane_outcome:
#     step: decide            # after the examination: sets the fact _corvane_seen
#     step: report            # at the end: the host's message, failed when it did not go well
#     state: present          # corvane_state
#     force: false            # corvane_force_reinstall
#     eclipse_dir: ""         # corvane_eclipse_dir
#     install_dir: /opt/corvane
#
# It reads the results the role's tasks registered straight from the host's variables, as they
# are (templating them as arguments would walk every string of them for every host):
# _corvane_release, _corvane_found (the examination), _corvane_seen (the decision) and
# _corvane_run (the installation).
#
# The examination's output is a line saying whether the installation directory exists
# ("corvane-dir exists" or "none"), one about the plug-in's Eclipse link file ("corvane-link ok",
# "missing", "n/a"), then cvcheck verify's JSON document; with absent it is cvcheck remove's
# output. The installation's output has a line per part: "corvane-unpack WORKDIR REASON" when
# the distribution could not be unpacked, "corvane-installer STATUS" followed by the installer's
# output, "corvane-verify STATUS" followed by cvcheck verify's JSON of the new installation. A
# host is up to date when cvcheck verify found every listed file as it was installed, the list it
# used is byte for byte this release's (list_sha256), and a plug-in is registered with the
# Eclipse installation given; it is installed only when the installer ended with status 0 and
# the verification after it passed. This is Python rather than Jinja in the task file because a
# template is compiled and its variables looked up anew for every host and task.
#
# With --diff the report shows what differs: for present, the files that differ or the release
# that replaces another (or a new installation); for absent, what is or would be removed.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json
import re

from ansible.errors import AnsibleActionFail
from ansible.plugins.action import ActionBase


def json_after(lines):
    """The JSON document that starts on the first of the lines beginning with '{', or None."""
    start = next((i for i, line in enumerate(lines) if line.startswith('{')), None)
    if start is None:
        return None
    try:
        document, _ = json.JSONDecoder().raw_decode('\n'.join(lines[start:]))
    except ValueError:
        return None
    return document if isinstance(document, dict) else None


def report_line(lines, tag):
    """The rest of the line 'corvane-TAG ...', or None."""
    prefix = 'corvane-%s ' % tag
    return next((line[len(prefix):] for line in lines if line.startswith(prefix)), None)


def verify_document(found):
    """cvcheck verify's JSON document from the examination, or None."""
    return json_after(found.get('stdout_lines') or [])


def drift_lines(verify):
    lines = []
    for record in verify.get('files', []):
        detail = record.get('detail') or ''
        lines.append('%s (%s%s)' % (record.get('file', record.get('path')), record.get('kind'),
                                    ': ' + detail if detail else ''))
    return lines


def decide(args, release, found):
    """The fact _corvane_seen: install (bool), why, refused (a message or ''), verify, drift."""
    verify = verify_document(found) or {'exit': 2, 'reason': 'cvcheck printed no report'}
    drift = drift_lines(verify)
    lines = found.get('stdout_lines') or []
    link = report_line(lines, 'link')
    seen = {'verify': verify, 'drift': drift, 'refused': '', 'install': False, 'why': '', 'was': '',
            'existed': report_line(lines, 'dir') != 'none'}
    if args.get('state') == 'present' and release.get('kind') == 'plugin' and not args.get('eclipse_dir'):
        seen['refused'] = ('The release holds the Eclipse plug-in package %s, whose installer asks for the '
                           'Eclipse installation: set corvane_eclipse_dir to it. Nothing was installed.'
                           % release.get('package'))
        return seen
    if not seen['existed']:
        was = 'none'
    elif verify.get('exit') != 0 and 'reason' in verify:
        was = 'an installation that could not be verified: %s' % verify['reason']
    elif verify.get('exit') != 0:
        was = '%d installed files differed: %s' % (len(drift), ', '.join(drift[:5]))
    elif verify.get('list_sha256', release.get('list_sha256')) != release.get('list_sha256'):
        was = 'another release, %s' % verify.get('list')
    else:
        was = 'this release, verified'
    if args.get('force'):
        why = 'a reinstall was asked for (corvane_force_reinstall)'
    elif not seen['existed']:
        why = 'nothing is installed there'
    elif verify.get('exit') != 0 and 'reason' in verify:
        why = 'no verified installation there: %s' % verify['reason']
    elif verify.get('exit') != 0:
        why = '%d installed files differ: %s' % (len(drift), ', '.join(drift[:5]))
    elif 'list_sha256' not in verify:
        why = "the release's cvcheck does not name the SHA-256 of the list it checked (it is older than that)"
    elif verify.get('list_sha256') != release.get('list_sha256'):
        why = 'another release is installed there (%s)' % verify.get('list')
    elif link not in ('ok', 'n/a'):
        why = 'the plug-in is not registered with the Eclipse installation %s' % args.get('eclipse_dir')
        was = 'this release, its plug-in not registered with Eclipse'
    else:
        why = ''
    seen.update(why=why, install=bool(why), was=was)
    return seen


def present_diff(seen, release, where):
    """What --diff shows for present when the host is not up to date."""
    name = release.get('name') or release.get('package')
    header = {'before_header': '%s (installed)' % where, 'after_header': '%s (release %s)' % (where, name)}
    verify = seen.get('verify') or {}
    if not seen.get('existed'):
        text = 'nothing installed\n', 'release %s\n' % name
    elif seen.get('drift'):
        text = ''.join('%s\n' % line for line in seen['drift']), ''.join(
            '%s (as released)\n' % record.get('file', record.get('path')) for record in verify.get('files', []))
    elif verify.get('list_sha256') and verify.get('list_sha256') != release.get('list_sha256'):
        text = 'release with the list %s\n' % verify.get('list'), 'release %s\n' % name
    else:
        text = '%s\n' % seen.get('was'), 'release %s (%s)\n' % (name, seen.get('why'))
    header.update(before=text[0], after=text[1])
    return header


def absent_diff(found, where):
    """What --diff shows for absent: the entries removed or that would be."""
    lines = found.get('stdout_lines') or []
    gone = [re.sub(r'^(would remove|removed)\s+', '', line) for line in lines
            if line.startswith(('would remove ', 'removed '))]
    return {'before_header': '%s (installed)' % where, 'after_header': '%s (after removal)' % where,
            'before': ''.join('%s\n' % path for path in gone), 'after': ''}


def report_install(run, seen, release, where, host):
    """ok, message of an installation that ran: installed only when the installer ended with 0
    and cvcheck verify of the installation passed after it."""
    lines = run.get('stdout_lines') or []
    unpack = report_line(lines, 'unpack')
    if unpack is not None:
        work, _, why = unpack.partition(' ')
        return False, ['could not unpack into %s on %s: %s. Nothing was installed.' % (work, host, why)] + [
            line for line in lines if not line.startswith('corvane-')][-5:]
    status = report_line(lines, 'installer')
    if status is None:
        return False, ['the installation ended with exit status %s on %s before the installer started:'
                       % (run.get('rc'), host)] + lines[-5:]
    if status != '0':
        said = [re.sub(r'^.*(Corvane Install: )', r'\1', line) for line in lines if 'Corvane Install: ' in line]
        start = lines.index('corvane-installer %s' % status) + 1
        return False, ['cvinst ended with exit status %s on %s:' % (status, host)] + (said or lines[start:][-5:])
    after = lines[lines.index('corvane-installer 0'):]
    verify = json_after(after) or {}
    if report_line(lines, 'verify') != '0' or verify.get('exit', 0) != 0:
        said = (verify.get('reason') or ', '.join(drift_lines(verify)[:5])
                or 'cvcheck verify ended with exit status %s: %s' % (report_line(lines, 'verify'), ' '.join(after[-3:])))
        return False, 'cvinst ended with status 0 on %s, but the installation in %s does not verify: %s' % (
            host, where, said)
    counts = verify.get('counts', {})
    return True, 'installed release %s in %s (was: %s); %s files verified' % (
        release.get('name') or release.get('package'), where, seen.get('was') or 'none', counts.get('checked'))


def report_present(seen, run, release, where, host, check_mode):
    if seen.get('refused'):
        return False, seen['refused']
    if 'rc' in run:
        return report_install(run, seen, release, where, host)
    if seen.get('install') and check_mode:
        return True, 'Check mode: would install release %s in %s (was: %s)' % (
            release.get('name') or release.get('package'), where, seen.get('was'))
    return True, 'Corvane is installed and verified in %s (%s)' % (where, seen['verify'].get('list'))


def report_verified(verify, where):
    if verify.get('exit') == 0:
        counts = verify.get('counts', {})
        return True, 'Corvane in %s is as installed: %s files checked (%s)' % (
            where, counts.get('checked'), verify.get('check'))
    if 'reason' in verify:
        return False, 'Corvane in %s cannot be verified: %s' % (where, verify['reason'])
    counts = verify.get('counts', {})
    return False, ['Corvane in %s differs from what was installed (%s of %s files):'
                   % (where, counts.get('differ'), counts.get('checked'))] + drift_lines(verify)


def report_absent(found, host):
    output = (found.get('stdout_lines') or []) + (found.get('stderr_lines') or [])
    if found.get('rc') == 0:
        summary = [line for line in output if line.startswith('cvcheck: ')]
        done = '%s on %s' % (summary[-1] if summary else 'cvcheck: done', host)
        kept = [line for line in output if line.startswith('kept ')]
        return True, [done] + kept if kept else done
    said = [line for line in output if line.startswith(('failed ', 'cvcheck: '))]
    return False, ['cvcheck remove ended with exit status %s on %s:' % (found.get('rc'), host)] + (said or output[-5:])


class ActionModule(ActionBase):
    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(('step', 'state', 'force', 'eclipse_dir', 'install_dir'))

    def run(self, tmp=None, task_vars=None):
        task_vars = task_vars or {}
        result = super(ActionModule, self).run(tmp, task_vars)
        args = self._task.args
        host = task_vars.get('inventory_hostname', 'the host')
        step, state = args.get('step'), args.get('state')

        def registered(name):
            value = task_vars.get(name)
            return value if isinstance(value, dict) else {}
        release, found = registered('_corvane_release'), registered('_corvane_found')
        if step == 'decide':
            result.update(changed=False, ansible_facts={'_corvane_seen': decide(args, release, found)})
            return result
        if step != 'report':
            raise AnsibleActionFail('corvane_outcome: step must be decide or report, not %r' % step)
        where = '%s on %s' % ((args.get('install_dir') or '').rstrip('/') or '/', host)
        refused = release.get('refused')
        if refused:
            ok, msg = False, refused
        elif state == 'present':
            seen = registered('_corvane_seen')
            ok, msg = report_present(seen, registered('_corvane_run'), release, where, host,
                                     self._play_context.check_mode)
            result['changed'] = bool(ok and seen.get('install') and (self._play_context.check_mode
                                                                   or 'rc' in registered('_corvane_run')))
            if self._play_context.diff and seen.get('install') and not seen.get('refused'):
                result['diff'] = present_diff(seen, release, where)
        elif state == 'verified':
            verify = verify_document(found) or {'exit': 2, 'reason': 'cvcheck printed no report'}
            ok, msg = report_verified(verify, where)
        else:
            ok, msg = report_absent(found, host)
            result['changed'] = bool(ok and re.search(r'^cvcheck: (would remove|removed) [1-9]',
                                                      found.get('stdout') or '', re.M))
            if self._play_context.diff and ok:
                result['diff'] = absent_diff(found, where)
        # Shown like the debug action's message, at the default verbosity.
        result.update(msg=msg, failed=not ok, _ansible_verbose_always=True)
        result.setdefault('changed', False)
        return result
