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
# The examination's output is a first line about the plug-in's Eclipse link file ("link ok",
# "link missing", "link n/a"), then cvcheck verify's JSON document; with absent it is cvcheck
# remove's output. A host is up to date when cvcheck verify found every listed file as it was
# installed, the list it used is byte for byte this release's (list_sha256), and a plug-in is
# registered with the Eclipse installation given. This is Python rather than Jinja in the task
# file because a template is compiled and its variables looked up anew for every host and task.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json
import re

from ansible.errors import AnsibleActionFail
from ansible.plugins.action import ActionBase


def verify_document(found):
    """cvcheck verify's JSON document from the examination, or None."""
    lines = found.get('stdout_lines') or []
    try:
        return json.loads('\n'.join(lines[1:]))
    except ValueError:
        return None


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
    first = (found.get('stdout_lines') or [''])[0]
    seen = {'verify': verify, 'drift': drift, 'refused': '', 'install': False, 'why': ''}
    if args.get('state') == 'present' and release.get('kind') == 'plugin' and not args.get('eclipse_dir'):
        seen['refused'] = ('The release holds the Eclipse plug-in package %s, whose installer asks for the '
                           'Eclipse installation: set corvane_eclipse_dir to it. Nothing was installed.'
                           % release.get('package'))
        return seen
    if args.get('force'):
        why = 'a reinstall was asked for (corvane_force_reinstall)'
    elif verify.get('exit') != 0 and 'reason' in verify:
        why = 'no verified installation there: %s' % verify['reason']
    elif verify.get('exit') != 0:
        why = '%d installed files differ: %s' % (len(drift), ', '.join(drift[:5]))
    elif 'list_sha256' not in verify:
        why = "the release's cvcheck does not name the SHA-256 of the list it checked (it is older than that)"
    elif verify.get('list_sha256') != release.get('list_sha256'):
        why = 'another release is installed there'
    elif first not in ('link ok', 'link n/a'):
        why = 'the plug-in is not registered with the Eclipse installation %s' % args.get('eclipse_dir')
    else:
        why = ''
    seen.update(why=why, install=bool(why))
    return seen


def report_present(seen, run, where, host, check_mode):
    if seen.get('refused'):
        return False, seen['refused']
    if 'rc' in run:
        if run['rc'] == 0:
            return True, 'Corvane was installed in %s: %s' % (where, seen['why'])
        output = (run.get('stdout_lines') or []) + (run.get('stderr_lines') or [])
        said = [re.sub(r'^.*(Corvane Install: )', r'\1', line) for line in output if 'Corvane Install: ' in line]
        return False, ['cvinst ended with exit status %d on %s:' % (run['rc'], host)] + (said or output[-5:])
    if seen.get('install') and check_mode:
        return True, 'Check mode: Corvane would be installed in %s: %s' % (where, seen['why'])
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
            ok, msg = report_present(seen, registered('_corvane_run'), where, host, self._play_context.check_mode)
            result['changed'] = bool(self._play_context.check_mode and seen.get('install') and ok)
        elif state == 'verified':
            verify = verify_document(found) or {'exit': 2, 'reason': 'cvcheck printed no report'}
            ok, msg = report_verified(verify, where)
        else:
            ok, msg = report_absent(found, host)
        # Shown like the debug action's message, at the default verbosity.
        result.update(msg=msg, failed=not ok, _ansible_verbose_always=True)
        result.setdefault('changed', False)
        return result
