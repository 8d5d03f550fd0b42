# "Scan with Korvane" in the context menu of GNOME Files (Nautilus 43 and
# later, through nautilus-python): starts `korvane --scan` on the selection.
# GNOME Files reads no other kind of menu entry from a package: its scripts
# folder is each user's own.
import os
import subprocess

import gi

gi.require_version("Nautilus", "4.0")
from gi.repository import GObject, Nautilus  # noqa: E402


def _local_paths(files):
    """The selected local files, as the bytes of their names."""
    paths = []
    for info in files:
        location = info.get_location()
        path = location.get_path() if location is not None else None
        if path is not None:
            # PyGObject hands names over as text with their odd bytes kept
            # as surrogates; os.fsencode gives the bytes back.
            paths.append(os.fsencode(path))
    return paths


class KorvaneScanMenu(GObject.GObject, Nautilus.MenuProvider):
    def get_file_items(self, *args):
        # Nautilus 43 passes the files alone; older ones a window first.
        paths = _local_paths(args[-1])
        if not paths:
            return []
        item = Nautilus.MenuItem(
            name="KorvaneScanMenu::scan",
            label="Scan with Korvane",
            tip="Scan the selected files and folders for viruses",
            icon="com.korvane.Korvane",
        )
        item.connect("activate", self._scan, paths)
        return [item]

    def _scan(self, _item, paths):
        # No shell: each name is one argument, whatever bytes it holds.
        subprocess.Popen([b"korvane", b"--scan", b"--", *paths], start_new_session=True)
