import { describe, expect, it } from "vitest";
import { nearest, plottedOf, plottedText, rangeOf, runs, withGaps, zoomed } from "../src/vehicle/range";

const HOUR = 3600_000;

describe("the range", () => {
  it("ends at the vehicle's newest sample, whatever the clock here says", () => {
    const years = rangeOf(new URLSearchParams("last=900"), 1000, 5 * HOUR);
    expect(years).toEqual({ fromMs: 5 * HOUR - 900_000, toMs: 5 * HOUR + 1, follows: true });
    expect(rangeOf(new URLSearchParams("last=0"), 1000, 5 * HOUR).fromMs).toBe(1000);
    expect(rangeOf(new URLSearchParams(), 4.5 * HOUR, 5 * HOUR).fromMs).toBe(4.5 * HOUR);
  });

  it("is fixed by from and to, and nonsense in the address is ignored", () => {
    expect(rangeOf(new URLSearchParams("from=10&to=20"), 0, 100_000)).toEqual({ fromMs: 10, toMs: 20, follows: false });
    for (const query of ["from=20&to=10", "from=x&to=20", "from=1", "last=-5", "last=abc"]) {
      expect(rangeOf(new URLSearchParams(query), 0, HOUR).follows).toBe(true);
    }
  });

  it("keeps the pointed time where it is while zooming", () => {
    const range = { fromMs: 1000, toMs: 2000, follows: false };
    expect(zoomed(range, 0.5, 1250)).toEqual({ fromMs: 1125, toMs: 1625 });
    expect(zoomed(range, 1e-9, 1500).toMs - zoomed(range, 1e-9, 1500).fromMs).toBe(100);
  });
});

describe("samples", () => {
  it("are not joined across a gap, and evenly rare ones are joined", () => {
    expect(withGaps([0, 100, 200, 300, 60_000, 60_100], [1, 2, 3, 4, 5, 6])[1]).toEqual([1, 2, 3, 4, null, 5, 6]);
    expect(withGaps([0, 60_000, 120_000], [1, 2, 3])).toEqual([[0, 60, 120], [1, 2, 3]]);
    expect(withGaps([], [])).toEqual([[], []]);
    expect(runs([0, 1, 2, 500, 501])).toEqual([[0, 3], [3, 5]]);
    expect(runs([])).toEqual([]);
  });

  it("are found by time", () => {
    expect([-5, 0, 14, 15, 16, 99].map((at) => nearest([0, 10, 20], at))).toEqual([0, 0, 1, 1, 2, 2]);
    expect(nearest([], 1)).toBe(-1);
  });
});

it("a plot's text holds an instance only if somebody chose one", () => {
  for (const text of ["gnss_positions.altitude", "gnss_positions.altitude@2", "a.b@-1"]) expect(plottedText(plottedOf(text))).toBe(text);
  expect(plottedOf("a.b@x")).toEqual({ column: "a.b", instance: undefined });
});
