# A local connection whose transfers of self-extracting files (*.run) arrive with one byte
# changed in the middle: a transfer damaged on its way, the same way on every run. The test
# gives it to one host to see that host fail on the checksum while the others install.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = '''
    name: damaging_local
    short_description: local connection that damages the .run files it transfers
    description:
        - Runs commands like the local connection; a file whose name ends in .run is changed by
          one byte after it has been copied.
    author: cvinst tests
    extends_documentation_fragment:
        - connection_pipelining
'''

import os

from ansible.plugins.connection.local import Connection as LocalConnection


class Connection(LocalConnection):
    transport = 'damaging_local'

    def put_file(self, in_path, out_path):
        super(Connection, self).put_file(in_path, out_path)
        if in_path.endswith('.run'):
            with open(out_path, 'r+b') as copy:
                copy.seek(os.path.getsize(out_path) // 2)
                byte = copy.read(1)
                copy.seek(-1, os.SEEK_CUR)
                copy.write(bytes([byte[0] ^ 0x01]))
