#!/usr/bin/env python3
"""Follows a step-by-step guide literally: its ```sh blocks are run, in order, in one bash
session, and each block whose info string names a file (```cpp file=main.cpp) is written to that
file, relative to where the session then is. Blocks marked once-per-machine (installing system
packages) and blocks of any other kind are not run.

    run-guide.py <guide.md> <installed prefix> <work folder> <text expected in the output>...

The session runs with HOME inside the work folder, the prefix on CMAKE_PREFIX_PATH and PATH, and
CXXFLAGS/LDFLAGS from the environment. Its output goes to <work folder>/output.txt; every
expected text must be in it. Programs the guide left running are stopped at the end.
"""
import os
import re
import shlex
import subprocess
import sys

FENCE = re.compile(r"^```(\S*)([^\n]*)\n(.*?)^```\s*$", re.S | re.M)


def script_of(guide):
    lines = ["set -euo pipefail", "set -x"]
    for kind, info, body in FENCE.findall(guide):
        words = info.split()
        target = next((w[5:] for w in words if w.startswith("file=")), None)
        if target:
            lines.append("cat > %s <<'GUIDE_FILE_END'\n%sGUIDE_FILE_END" % (shlex.quote(target), body))
        elif kind == "sh" and "once-per-machine" not in words:
            lines.append(body)
    return "\n".join(lines) + "\n"


def main():
    guide_path, prefix, work = sys.argv[1:4]
    expected = sys.argv[4:]
    with open(guide_path, encoding="utf-8") as f:
        script = script_of(f.read())
    home = os.path.join(work, "home")
    os.makedirs(home, exist_ok=True)
    os.chmod(work, 0o755)
    os.chmod(home, 0o755)
    with open(os.path.join(work, "guide.sh"), "w", encoding="utf-8") as f:
        f.write(script)
    env = dict(os.environ)
    for name in ("XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"):
        env.pop(name, None)
    env.update(HOME=home, CMAKE_PREFIX_PATH=prefix,
               PATH=os.path.join(prefix, "bin") + os.pathsep + env.get("PATH", ""))
    output = os.path.join(work, "output.txt")
    try:
        with open(output, "ab") as out:
            rc = subprocess.run(["bash", os.path.join(work, "guide.sh")], cwd=home, env=env,
                                stdout=out, stderr=subprocess.STDOUT, timeout=900).returncode
    except subprocess.TimeoutExpired:
        rc = "timeout"
    finally:
        subprocess.run(["pkill", "-x", "HelloUpd"])
        for pid_file in subprocess.run(["find", home, "-name", "nginx.pid"], capture_output=True,
                                       text=True).stdout.split():
            subprocess.run(["sh", "-c", 'kill "$(cat "$0")"', pid_file])
    with open(output, encoding="utf-8", errors="replace") as f:
        said = f.read()
    missing = [text for text in expected if text not in said]
    if rc != 0 or missing:
        print(said[-6000:])
        print("the guide failed: exit %s, missing %s" % (rc, missing))
        return 1
    print("the guide ran through: %d blocks, every expected text seen" % script.count("\n"))
    return 0


if __name__ == "__main__":
    sys.exit(main())
