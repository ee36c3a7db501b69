#!/usr/bin/env python3
"""A mutation sample: one-line faults put into the receiver and the host's
parsers, each built and run against the Release build's test suite.

  mutation_sample.py generate --source DIR > docs/mutation-sample.tsv
  mutation_sample.py run --source DIR --build DIR --list FILE [--report FILE]

`generate` picks candidate faults with a fixed seed, a quota per folder, and
three spare candidates per folder for faults that do not compile. `run` applies
each fault in turn to the source tree, rebuilds, runs ctest (stopping at the
first failing test), restores the file, and counts per folder how many faults
the suite caught. Per folder it takes the first QUOTA faults that build, so two
runs over the same list and the same library code measure the same faults.

A fault is caught when a test fails or hangs (a ctest run three times as long
as the unmutated suite's) and the failure repeats when that test runs alone;
it survives when the whole suite passes. The build directory must be configured beforehand (Release,
BUILD_TESTING=ON) and pass unmutated: `run` checks that first.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys
import time

# Folder -> number of faults measured there.
QUOTAS = {
    "acquisition": 8,
    "demodulation": 8,
    "channel": 8,
    "delivery": 10,
    "services": 6,
    "receiver": 8,
    "device": 6,
    "tools/ficparse": 6,
    "tools/pad": 4,
}
SPARES = 3
SEED = 20261125

# (pattern, replacement) pairs tried on the code part of a line. The spaces
# around binary operators keep template brackets, pointers and unary signs out.
OPERATORS = [
    (r" < ", " <= "), (r" <= ", " < "), (r" > ", " >= "), (r" >= ", " > "),
    (r" == ", " != "), (r" != ", " == "),
    (r" && ", " || "), (r" \|\| ", " && "),
    (r" \+ ", " - "), (r" - ", " + "), (r" \* ", " / "),
    (r" >> ", " << "), (r" << ", " >> "),
    (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"\+\+", "--"),
]
INTEGER = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
SKIP = re.compile(r'^\s*(#|static_assert|//|\*|/\*|template|namespace|using|case\b)|"|\'')


def code_part(line):
    cut = line.find("//")
    return line if cut < 0 else line[:cut]


def mutations_of(line):
    """Every one-line fault of this line: (new line, description)."""
    if SKIP.search(line):
        return []
    code = code_part(line)
    rest = line[len(code):]
    found = []
    for pattern, replacement in OPERATORS:
        for m in re.finditer(pattern, code):
            new = code[:m.start()] + replacement + code[m.end():]
            found.append((new + rest, f"'{m.group(0).strip()}' -> '{replacement.strip()}'"))
    for m in INTEGER.finditer(code):
        value = int(m.group(1))
        new = code[:m.start()] + str(value + 1) + code[m.end():]
        found.append((new + rest, f"{value} -> {value + 1}"))
    return found


def sources(root, folder):
    out = subprocess.run(["git", "-C", root, "ls-files", folder], capture_output=True,
                         text=True, check=True).stdout.split()
    return sorted(f for f in out if f.endswith((".cpp", ".h")) and "/tests/" not in f and "/fuzz/" not in f
                  and not f.endswith(("_avx2.cpp", "_sse2.cpp")))


def generate(root):
    rng = random.Random(SEED)
    print("# folder\tfile\tline\tdescription\toriginal\tmutated")
    for folder, quota in QUOTAS.items():
        candidates = []
        for path in sources(root, folder):
            with open(os.path.join(root, path), encoding="utf-8") as f:
                for number, line in enumerate(f.read().split("\n"), 1):
                    for new, what in mutations_of(line):
                        candidates.append((path, number, what, line, new))
        # One fault per line at most, lines spread over the folder.
        rng.shuffle(candidates)
        taken, lines = [], set()
        for c in candidates:
            if (c[0], c[1]) in lines:
                continue
            lines.add((c[0], c[1]))
            taken.append(c)
            if len(taken) == quota + SPARES:
                break
        for path, number, what, line, new in sorted(taken, key=lambda c: (c[0], c[1])):
            print("\t".join([folder, path, str(number), what, line.replace("\t", " "),
                             new.replace("\t", " ")]))


EXCLUDE = []  # ctest -E arguments
LIMIT = [None]  # seconds a ctest run may take: three times the unmutated suite's


def ctest(args):
    """Runs ctest; (exit status, output). A run past LIMIT is a hang: its
    process group is killed and it counts as failed. (ctest's own --timeout
    gives way to the TIMEOUT property of a test.)"""
    p = subprocess.Popen(["ctest"] + args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                         start_new_session=True)
    try:
        out, _ = p.communicate(timeout=LIMIT[0])
        return p.returncode, out
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        out, _ = p.communicate()
        return -1, out + "\nThe following tests FAILED:\n\t0 - (hang) (Timeout)\n"


def build_and_test(build, timeout):
    """Returns (built, failed tests or None when the suite passed). A test
    that fails is run once more on its own: tests that keep to real time can
    fail on a machine busy with other work, and a fault counts as caught only
    when its failure repeats."""
    jobs = str(os.cpu_count() or 2)
    b = subprocess.run(["cmake", "--build", build, "-j", jobs], capture_output=True, text=True)
    if b.returncode != 0:
        return False, None
    for attempt in range(2):
        status, out = ctest(["--test-dir", build, "-j", jobs, "--stop-on-failure", "--timeout", str(timeout)]
                            + EXCLUDE)
        if status == 0:
            return True, None
        listed = out.split("The following tests FAILED:")[-1] if "tests FAILED:" in out else ""
        failed = re.findall(r"^\s*\d+ - (\S+) \((?:Failed|Timeout|SEGFAULT|Subprocess|Exception|OTHER_FAULT)",
                            listed, re.M)
        if not failed:
            return True, ["(ctest failed)"]
        if "(hang)" in failed:
            return True, failed
        status, out = ctest(["--test-dir", build, "--timeout", str(timeout), "-R",
                             "^(" + "|".join(failed) + ")$", "--output-on-failure"])
        if status != 0:
            lines = [l for l in out.split("\n") if "Failure" in l or "FAILED" in l]
            print("    " + "\n    ".join(lines[:6]), flush=True)
            return True, failed
    return True, None


def run(root, build, listing, report, timeout):
    rows = []
    with open(listing, encoding="utf-8") as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            folder, path, number, what, original, mutated = line.rstrip("\n").split("\t")
            rows.append((folder, path, int(number), what, original, mutated))
    print("Unmutated suite ...", flush=True)
    start = time.time()
    built, failed = build_and_test(build, timeout)
    if not built or failed:
        sys.exit(f"the unmutated suite must build and pass first (failed: {failed})")
    LIMIT[0] = 3 * (time.time() - start) + 60

    results = []   # (folder, path, number, what, verdict)
    done = {f: 0 for f in QUOTAS}
    for folder, path, number, what, original, mutated in rows:
        if done.get(folder, 0) >= QUOTAS.get(folder, 0):
            continue
        full = os.path.join(root, path)
        with open(full, encoding="utf-8") as f:
            text = f.read()
        lines = text.split("\n")
        if number > len(lines) or lines[number - 1].replace("\t", " ") != original:
            print(f"  {path}:{number} no longer matches, skipped", flush=True)
            continue
        lines[number - 1] = mutated
        start = time.time()
        try:
            with open(full, "w", encoding="utf-8") as f:
                f.write("\n".join(lines))
            built, failed = build_and_test(build, timeout)
        finally:
            with open(full, "w", encoding="utf-8") as f:
                f.write(text)
        if not built:
            print(f"  {path}:{number} {what}: does not build, next candidate", flush=True)
            continue
        done[folder] += 1
        verdict = "survived" if failed is None else "caught by " + ", ".join(failed)
        results.append((folder, path, number, what, verdict))
        print(f"  {path}:{number} {what}: {verdict} ({time.time() - start:.0f} s)", flush=True)
    # Leave the build matching the restored sources.
    subprocess.run(["cmake", "--build", build, "-j", str(os.cpu_count() or 2)], capture_output=True)

    out = ["| Folder | Faults | Caught |", "|---|---:|---:|"]
    total = caught = 0
    for folder in QUOTAS:
        mine = [r for r in results if r[0] == folder]
        c = sum(1 for r in mine if r[4] != "survived")
        out.append(f"| {folder} | {len(mine)} | {c} |")
        total += len(mine)
        caught += c
    out.append(f"| all | {total} | {caught} |")
    out += ["", "| Fault | Change | Result |", "|---|---|---|"]
    out += [f"| {p}:{n} | {w} | {v} |" for _, p, n, w, v in results]
    text = "\n".join(out) + "\n"
    print(text)
    if report:
        with open(report, "w", encoding="utf-8") as f:
            f.write(text)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("command", choices=["generate", "run"])
    p.add_argument("--source", required=True)
    p.add_argument("--build")
    p.add_argument("--list")
    p.add_argument("--report")
    p.add_argument("--timeout", type=int, default=300, help="seconds per test")
    p.add_argument("--exclude", help="regular expression of ctest entries left out")
    p.add_argument("--skip", help="GoogleTest filter of tests left out, e.g. one that fails on a loaded "
                                   "machine whatever the code does")
    a = p.parse_args()
    if a.command == "generate":
        generate(a.source)
    else:
        if not a.build or not a.list:
            p.error("run needs --build and --list")
        if a.exclude:
            EXCLUDE.extend(["-E", a.exclude])
        if a.skip:
            os.environ["GTEST_FILTER"] = "-" + a.skip
        run(a.source, a.build, a.list, a.report, a.timeout)


if __name__ == "__main__":
    main()
