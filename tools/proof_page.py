"""The page of `./dev proof`: what was done, in figures that were read from the programs' output."""


def table(headings, rows):
    """The first column is text, the others are numbers."""
    lines = ["| " + " | ".join(headings) + " |", "| --- |" + " ---: |" * (len(headings) - 1)]
    return lines + ["| " + " | ".join(row) + " |" for row in rows]


def findings_of(record):
    units = record["units"].values()
    return sum(len(unit["findings"]) for unit in units) + (record["error"] is not None)


def hours(seconds):
    return f"{seconds / 3600:.2f}"


def summary(stages, records):
    for stage in stages:
        record = records[stage.name]
        units = record["units"].values()
        reached = ""
        if stage.goal:
            whole = sum(unit["count"] >= stage.goal for unit in units)
            reached = f"{stage.goal:,} in {whole} of {len(units)}"
        yield [stage.title, hours(sum(unit["seconds"] for unit in units)),
               f"{sum(unit['count'] for unit in units):,} {stage.counted}", reached,
               str(findings_of(record))]


def details(stage, record):
    lines = ["", f"## {stage.title}", ""]
    if record["error"] is not None:
        lines += [record["error"].replace("\n", " "), ""]
    rows = [[f"`{name}`", f"{unit['count']:,}", f"{unit['seconds'] / 60:.1f}",
             str(len(unit["findings"]))] for name, unit in record["units"].items()]
    return lines + table(["unit", stage.counted, "minutes", "findings"], rows)


def findings(stages, records):
    for stage in stages:
        for name, unit in records[stage.name]["units"].items():
            for each in unit["findings"]:
                yield f"- {stage.name}, `{name}`: {each['what']}"
                yield f"  `{each['reproduce']}`"


def page(state, stages, jobs, machine):
    records = state["stages"]
    seconds = sum(unit["seconds"] for record in records.values()
                  for unit in record["units"].values())
    built = sum(record["built"] for record in records.values())
    lines = [
        "# Proof", "",
        f"Written by `./dev proof --minutes {state['minutes']:g}`, from what the programs printed.",
        "",
        f"Commit {state['version']}, begun {state['begun']}; {machine}. {jobs} programs ran at a",
        f"time, {hours(seconds)} hours together; building took {built / 60:.1f} minutes beside.",
        f"Seeds begin at {state['seed']}. \"Reached\" says how many tests came to the number that",
        "is wanted of each.", ""]
    lines += table(["what", "hours", "done", "reached", "findings"], summary(stages, records))
    lines += ["", "## Findings", ""]
    lines += list(findings(stages, records)) or ["None." if not any(
        map(findings_of, records.values())) else "Only what could not be run; see below."]
    for stage in stages:
        lines += details(stage, records[stage.name])
    return "\n".join(lines) + "\n"
