"""The profile that qlk reads: who the user is, and where the grid."""
import json
import os
import tomllib

DEFAULT_RESPONSE = "user-name"
HEAD = "# What qlk needs to join the grid. 'quillon-grid enroll' writes it anew: copy it before you change it.\n"


def write(path, user, hosts=(), ca="", certificate="", key="", passphrase_file=None, bulk_url=None, sasl_response=DEFAULT_RESPONSE):
    """Writes the file; other paths in it are relative to its folder. A pass phrase's file that it names stays while the key is encrypted."""
    folder = os.path.dirname(path)
    values = {"hosts": list(hosts) or None, "user": user, "certificate": os.path.relpath(certificate, folder),
              "key": os.path.relpath(key, folder), "passphrase_file": passphrase_file or kept_passphrase_file(path, key),
              "ca": os.path.relpath(ca, folder), "sasl_response": None if sasl_response == DEFAULT_RESPONSE else sasl_response}
    lines = [f"{name} = {quoted(value)}\n" for name, value in values.items() if value is not None]
    if not hosts:
        lines.append("# The grid has never been up: enroll again when it is, and its address will stand here.\n")
    if bulk_url:
        lines += ["\n[bulk]\n", f"url = {quoted(bulk_url)}\n"]
    fresh = path + ".new"
    with open(fresh, "w", encoding="utf-8") as file:
        file.writelines([HEAD, *lines])
    os.replace(fresh, path)


def quoted(value):
    """TOML's basic strings and lists of them are written as JSON's, but for DEL."""
    return json.dumps(value, ensure_ascii=False).replace("\x7f", "\\u007f")


def kept_passphrase_file(path, key):
    try:
        with open(key, encoding="ascii") as file:
            if "ENCRYPTED" not in file.read():
                return None
        with open(path, "rb") as file:
            return tomllib.load(file).get("passphrase_file")
    except (OSError, ValueError):
        return None
