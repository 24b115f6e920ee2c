import { describe, expect, it } from "vitest";
import type { Model } from "../src/configure/model";
import { added, changed, clockNamed, differences, empty, moved, read, removed, together, write } from "../src/configure/model";

function model(text: string): Model {
  const found = read(text);
  if ("problem" in found) throw new Error(found.problem);
  return found.model;
}

const TEXT = `// Comments are fine.
{"CONFIG": [{"name": "Drive", "version": "1", "owner": "bench"}, {"name": "second"}],
 "CLOCK": [{"name": "minute", "duration": 60000, "zone": 1}, {"name": "other"}],
 "REPORT": [{"name": "R", "application": "A", "from": ["p", "s"], "note": {"deep": [1, null]}}],
 "COLLECT": [{"name": "p", "serv": "GNSS", "res": "positions", "index": 1, "history": 5000, "on": "minute"},
             {"name": "s", "serv": "Chassis", "res": "velocityInfo", "index": 1, "on": "other", "note": "kept"}],
 "COMPARE": [{"name": "hot"}]}`;

describe("text and model", () => {
  it("keep what the form does not know", () => {
    const once = model(TEXT);
    expect(model(write(once))).toEqual(once);
    const parsed = JSON.parse(write(once)) as Record<string, unknown[]>;
    expect(parsed.CLOCK).toEqual([{ name: "minute", duration: 60000, zone: 1 }, { name: "other" }]);
    expect(parsed.CONFIG).toEqual([{ name: "Drive", version: "1", owner: "bench" }]);
    expect(parsed.COMPARE).toEqual([{ name: "hot" }]);
    expect(parsed.REPORT![0]).toEqual({ name: "R", application: "A", from: ["p", "s"], note: { deep: [1, null] } });
    expect(parsed.COLLECT![1]).toEqual({ name: "s", serv: "Chassis", res: "velocityInfo", index: 1, on: "other", note: "kept" });
  });

  it("say why a text has no form", () => {
    const problem = (text: string): string => ("problem" in read(text) ? (read(text) as { problem: string }).problem : "none");
    expect(problem("{\n\"CLOCK\": [}")).toMatch(/^line 2/);
    expect(problem("[]")).toBe("The text is no object");
    expect(problem('{"COLLECT": [{"name": "a", "index": "1"}]}')).toBe("COLLECT[0].index is no number");
    expect(problem('{"REPORT": {}}')).toBe("REPORT is no array");
    expect(problem("{}")).toBe("none");
  });
});

describe("changes", () => {
  it("keep reports, collectors and the clock together", () => {
    let now = added(added(empty(), "GNSS", "positions", 1), "GNSS", "positions", 2);
    expect(now.reports[0]!.from).toEqual(["GNSS.positions.1", "GNSS.positions.2"]);
    now = changed(now, "GNSS.positions.1", { name: "position" });
    expect(now.reports[0]!.from).toEqual(["position", "GNSS.positions.2"]);
    now = clockNamed(now, "tick");
    expect(now.collectors.map(({ on }) => on)).toEqual(["tick", "tick"]);
    now = moved({ ...now, reports: [...now.reports, { name: "B", application: "", from: [], rest: {} }] }, "position", "B");
    expect(now.reports.map(({ from }) => from)).toEqual([["GNSS.positions.2"], ["position"]]);
    expect(removed(now, "position").reports[1]!.from).toEqual([]);
  });
});

describe("the difference", () => {
  it("says what a running vehicle does at once and what only after a start", () => {
    const before = model(TEXT);
    let after = changed(before, "s", { history: 1000 });
    after = added(removed(after, "p"), "Temperature", "temperatures", 0);
    after = { ...after, clock: { ...after.clock, duration: 120000 } };
    const found = differences(before, after).map(({ what, name, kind, when }) => `${what} ${name} ${kind} ${when}`);
    expect(found).toEqual([
      "clock minute changed at once",
      "collector s changed at the next start",
      "collector Temperature.temperatures.0 added at the next start",
      "collector p removed at the next start",
      "report R changed at the next start",
    ]);
    expect(differences(before, model(write(before)))).toEqual([]);

    // The running report stays as it is: only a new one sends the new collector.
    const report = { name: "New", application: "", from: [], rest: {} };
    const sent = moved({ ...after, reports: [...after.reports, report] }, "Temperature.temperatures.0", "New");
    expect(differences(before, sent).find(({ kind, what }) => kind === "added" && what === "collector")).toMatchObject({ when: "at once" });
  });

  it("compares with all that was applied since the start: names stay with the first, the clock is the last", () => {
    const first = model(TEXT);
    const second = { ...changed(added(first, "Temperature", "temperatures", 0), "s", { history: 9 }), clock: { name: "slow", duration: 120000 } };
    const running = together([first, second]);
    expect(running.collectors.map(({ name, history }) => `${name} ${history}`)).toEqual(["p 5000", "s 0", "Temperature.temperatures.0 0"]);
    expect(running.clock.name).toBe("slow");
    expect(running.reports).toEqual(first.reports);
  });

  it("knows that an instance belongs to its first collector until the next start", () => {
    const before = model(TEXT);
    const after = added(removed(before, "p"), "GNSS", "positions", 1);
    expect(differences(before, after).find(({ kind }) => kind === "added")).toMatchObject({ when: "at the next start" });
  });
});
