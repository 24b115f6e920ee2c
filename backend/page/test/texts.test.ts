import { expect, it } from "vitest";
import type { CatalogEvent, Sample } from "../src/api";
import { address } from "../src/api";
import { bytes, losses, span, value, whole } from "../src/format";
import { link, parseRoute } from "../src/route";
import { firstPlots, knownFields, search } from "../src/vehicle/fields";

it("names with any characters survive the address", () => {
  for (const name of ["a/b?c#d", "x & y=1", "50 %", "ü€"]) {
    const { path, query } = parseRoute(link(["vehicle", name], { plot: ["a.b@1", name], last: undefined }));
    expect(path).toEqual(["vehicle", name]);
    expect(query.getAll("plot")).toEqual(["a.b@1", name]);
  }
  expect(address(["vehicles", "a/b", "track"], { from: 0, to: undefined })).toBe("/api/vehicles/a%2Fb/track?from=0");
  expect(parseRoute("#/vehicle/%E0%A4%A").path).toEqual(["vehicle", "%E0%A4%A"]);
});

it("numbers have as many digits as they need", () => {
  expect([value(48.123456789), value(0.1 + 0.2), value(21.0000001, 0.5), value(1234.5678, 0.01)]).toEqual(["48.12346", "0.3", "21.0", "1234.57"]);
  expect(whole(1234567)).toBe("1\u202f234\u202f567");
  expect([bytes(1023), bytes(1536), span(59_000), span(90 * 60_000), span(3 * 86_400_000)]).toEqual(["1023 B", "1.5 KiB", "59 s", "1 h 30 min", "3 d"]);
});

it("losses are what vlm-status calls lost", () => {
  expect(losses({ "orx.sent": 5, "queue.ingress.dropped": 2, "spool.dropped.age": 7, "log.dropped.dlt": 9, "orx.failed": 1, "reports.failed": 0 }))
    .toEqual([["spool.dropped.age", 7], ["queue.ingress.dropped", 2]]);
});

it("a search finds fields by name, unit and meaning, those with samples first; the first plot is the vehicle's speed", () => {
  const field = (name: string, unit: string, meaning: string) => ({ name, column: name.toLowerCase(), kind: "real" as const, unit, meaning, values: [] });
  const event = (service: string, fields: ReturnType<typeof field>[]): CatalogEvent => ({ service: `${service}Proxy`, catalogService: service,
    resource: "info", view: `${service.toLowerCase()}_velocity_info`, summary: "", indexes: [], fields });
  const known = knownFields([event("Airbag", [field("speedLimit", "km/h", "Limit.")]),
    event("Chassis", [field("wheelSpeed", "km/h", "Of one wheel."), field("speed", "km/h", "Of the car."), field("torque", "N m", "At the wheels.")])]);
  const found = (text: string): string[] => search(known.values(), text, new Set(["chassis_velocity_info"])).map(({ column }) => column);
  expect(found("speed")).toEqual(["chassis_velocity_info.speed", "chassis_velocity_info.wheelspeed", "airbag_velocity_info.speedlimit"]);
  expect(found("at wheels")).toEqual(["chassis_velocity_info.torque"]);
  expect(found("wheel speed")).toEqual(["chassis_velocity_info.wheelspeed"]);
  expect(firstPlots(known, ["airbag", "chassis"].map((name) => ({ view: `${name}_velocity_info` }) as Sample))[0]).toMatch(/^chassis/);
});
