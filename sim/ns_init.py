"""Inside the sandbox's private mount and network namespaces: mounts the
scratch root, creates the board's interfaces, starts the daemon chrooted and
reaps it (it is a subreaper, so the detached daemon stays its child).

Run by Sandbox as: unshare -m -n --fork /usr/bin/python3 ns_init.py CONFIG.json
It writes its progress to the status file named in the config (JSON, replaced
atomically) and ends when every process below it has ended. SIGTERM kills
every process below it, by pid: with the config's term_grace (a daemon built
for coverage), first by SIGTERM for that many seconds, then by SIGKILL.
"""

import ctypes
import json
import os
import signal
import subprocess
import sys
import time

PR_SET_CHILD_SUBREAPER = 36

terminating = False
sigkill_after = 0.0  # monotonic time from which what is left gets SIGKILL
term_grace = 0.0


def run(*cmd, **kw):
    subprocess.run(cmd, check=True, **kw)


def setup_mounts(cfg):
    root = cfg["root"]
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "overlay", "overlay", "-o",
        f"lowerdir=/usr,upperdir={cfg['usr_upper']},workdir={cfg['usr_work']}", f"{root}/usr")
    for dev in cfg["binds"]:
        run("mount", "--bind", dev, f"{root}{dev}")
    if cfg.get("proc"):
        run("mount", "-t", "proc", "proc", f"{root}/proc")


def setup_links(links):
    cmds = ["link set lo up"]
    for i, (name, up) in enumerate(links):
        cmds.append(f"link add {name} type veth peer name dsim{i}")
        if up:
            cmds.append(f"link set {name} up")
    run("ip", "-batch", "-", input="\n".join(cmds) + "\n", text=True)


def children():
    me = os.getpid()
    try:
        with open(f"/proc/{me}/task/{me}/children") as f:
            return [int(p) for p in f.read().split()]
    except OSError:
        return []


def comm(pid):
    try:
        with open(f"/proc/{pid}/comm") as f:
            return f.read().strip()
    except OSError:
        return ""


def write_status(path, status):
    tmp = f"{path}.tmp"
    with open(tmp, "w") as f:
        json.dump(status, f)
    os.replace(tmp, path)


def kill_children(*_):
    sig = signal.SIGTERM if time.monotonic() < sigkill_after else signal.SIGKILL
    for pid in children():
        try:
            os.kill(pid, sig)
        except ProcessLookupError:
            pass


def on_term(signo, frame):
    global terminating, sigkill_after
    if not terminating and term_grace > 0:
        sigkill_after = time.monotonic() + term_grace
        # Wakes a waitpid that a child ignoring SIGTERM would block.
        signal.signal(signal.SIGALRM, kill_children)
        signal.setitimer(signal.ITIMER_REAL, term_grace + 0.01)
    terminating = True
    kill_children()


def reap(cfg, status, launcher):
    """Waits for every descendant; records exit codes."""
    while True:
        try:
            pid, wstatus = os.waitpid(-1, os.WNOHANG if terminating else 0)
        except ChildProcessError:
            break
        if pid == 0:
            kill_children()
            time.sleep(0.02)
            continue
        code = os.waitstatus_to_exitcode(wstatus)
        status["exits"][str(pid)] = code
        if pid == launcher:
            status["launcher_status"] = code
            # The launcher has detached: its child is now ours.
            status["daemon_pids"] = [p for p in children() if comm(p) == cfg["daemon_comm"]]
        write_status(cfg["status"], status)
    status["done"] = True
    write_status(cfg["status"], status)


def main():
    with open(sys.argv[1]) as f:
        cfg = json.load(f)
    status = {"init_pid": os.getpid(), "launcher_pid": None, "launcher_status": None,
              "daemon_pids": [], "exits": {}, "done": False}
    global term_grace
    term_grace = float(cfg.get("term_grace", 0.0))
    signal.signal(signal.SIGTERM, on_term)
    try:
        setup_mounts(cfg)
        setup_links(cfg["links"])
    except subprocess.CalledProcessError as e:
        status["error"] = f"set-up failed: {e}"
        status["done"] = True
        write_status(cfg["status"], status)
        return 1
    libc = ctypes.CDLL(None, use_errno=True)
    libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    env = [f"{k}={v}" for k, v in cfg["env"].items()]
    launcher = subprocess.Popen(["chroot", cfg["root"], "/usr/bin/env", "-i", *env, *cfg["daemon"]],
                                stdin=subprocess.DEVNULL)
    status["launcher_pid"] = launcher.pid
    write_status(cfg["status"], status)
    # Popen would reap the launcher behind our back; os.waitpid does it all.
    launcher.returncode = 0
    reap(cfg, status, launcher.pid)
    return 0


if __name__ == "__main__":
    sys.exit(main())
