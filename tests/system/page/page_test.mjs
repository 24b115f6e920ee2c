// The page in a real browser: data of a vehicle appears by itself, a configuration made on the page is stored and
// collects, the page survives restarts of server, broker and database, and every view is accessible and fits a narrow screen.
// page_test.py starts all that is behind the page.
import assert from "node:assert/strict";
import { readFileSync, readSync, writeSync } from "node:fs";
import { createRequire } from "node:module";
import { join } from "node:path";
import { after, before, test as plainTest } from "node:test";

const [address, browserProgram, packageFolder, telling] = process.argv.slice(2);
const packages = createRequire(join(packageFolder, "package.json"));
const { chromium } = packages("playwright-core");
const axe = readFileSync(packages.resolve("axe-core/axe.min.js"), "utf8");

let browser;
let page;
const complaints = [];
let serverRuns = true;

async function until(condition, what, deadlineMs = 30_000) {
  const end = Date.now() + deadlineMs;
  while (!(await condition())) {
    if (Date.now() > end) throw new Error(`did not come: ${what}`);
    await new Promise((done) => setTimeout(done, 50));
  }
}

// Returns when that is done.
function tell(peer, what) {
  writeSync(Number(telling), `${peer} ${what}\n`);
  readSync(0, Buffer.alloc(1));
}

before(async () => {
  browser = await chromium.launch({ executablePath: browserProgram, args: [
    ...(process.getuid() === 0 ? ["--no-sandbox"] : []), "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync"] });
  page = await browser.newPage({ viewport: { width: 1280, height: 900 } });
  page.setDefaultTimeout(30_000);
  page.on("console", (message) => {
    if (serverRuns && message.type() === "error") complaints.push(message.text());
  });
  page.on("pageerror", (error) => complaints.push(error.stack));
});

// The steps build on each other: after a failure the others would only wait for their deadlines.
let failed = false;
function test(name, body) {
  plainTest(name, async (context) => {
    if (failed) return context.skip("an earlier step failed");
    try {
      await body();
    } catch (error) {
      failed = true;
      throw error;
    }
  });
}

after(() => browser?.close());

const number = async (selector, attribute) => Number(await page.locator(selector).first().getAttribute(attribute));
const positions = () => number("[data-positions]", "data-positions");

async function awaitNewPositions() {
  await until(async () => (await positions()) > 0, "a track");
  const before = await positions();
  await until(async () => (await positions()) > before, "new positions", 60_000);
}

test("an empty page says what to expect", async () => {
  await page.goto(address);
  await page.getByRole("heading", { name: "Vehicles", level: 1 }).waitFor();
  await page.getByText("No vehicle has reported yet.").or(page.getByRole("link", { name: "bench" })).first().waitFor();
  await page.getByText("● online").waitFor();
});

test("a configuration made on the page is stored, assigned and applied", async () => {
  await page.goto(`${address}#/configure/new`);
  await page.getByLabel("Name of the configuration").fill("Commute");
  for (const [words, instance] of [["GNSS positions", /^1 fused/], ["Chassis velocityInfo", /^1 /], ["Airbag notifications", /^2 /]]) {
    await page.getByRole("searchbox", { name: "Find an event" }).fill(words);
    const event = page.locator(".picker li").first();
    if ((await event.locator("details").getAttribute("open")) === null) await event.locator("summary").click();
    await event.getByRole("checkbox", { name: instance }).check();
  }
  // All records, not only the newest.
  await page.getByLabel("Records of GNSS.positions.1").selectOption("all");
  await page.getByText("No finding: a vehicle takes this configuration.").waitFor();

  // A mistake in the text is found while typing, with its line; nothing can be stored meanwhile.
  await page.getByRole("button", { name: "JSON", exact: true }).click();
  const text = page.getByLabel("Configuration as JSON");
  const good = await text.inputValue();
  await text.fill(good.replace('"velocityInfo"', '"velocityInf"'));
  await page.locator(".findings .chip", { hasText: "error" }).first().waitFor();
  assert.ok(await page.getByRole("button", { name: /^Store as version/ }).isDisabled());
  await text.fill(good);
  await page.getByText("No finding").waitFor();

  await page.getByRole("button", { name: "Store as version 1" }).click();
  await page.getByText(/^Stored as/).waitFor();
  await page.getByRole("combobox", { name: "Assign to" }).selectOption("vehicle bench");
  await page.getByRole("button", { name: "Assign", exact: true }).click();
  await page.getByText("Assigned to vehicle bench").waitFor();
  await page.goto(`${address}#/configure`);
  await page.getByRole("row", { name: /bench/ }).locator(".chip", { hasText: "applied" }).waitFor();
});

test("samples on the wire become points on the map and lines in plots, by themselves", async () => {
  await page.goto(`${address}#/vehicle/bench`);
  await until(async () => (await positions()) > 10, "positions on the map", 60_000);
  // Pixels; of a plot those in a colour, as its axes and grid are grey.
  const drawn = (canvas, coloured) => page.locator(canvas).first().evaluate((element, only) => {
    const { data } = element.getContext("2d").getImageData(0, 0, element.width, element.height);
    let inked = 0;
    for (let at = 0; at < data.length; at += 4) {
      const [red, green, blue, alpha] = data.subarray(at, at + 4);
      inked += alpha > 0 && (!only || Math.max(red, green, blue) - Math.min(red, green, blue) > 60);
    }
    return inked;
  }, coloured);
  await until(async () => (await drawn(".map .leaflet-overlay-pane canvas")) > 20, "the track on the map");
  await until(async () => (await drawn(".plot-box canvas", true)) > 100, "a line in the first plot");
  // From far away, a map without tiles has the outlines of countries.
  await until(async () => {
    await page.locator(".map").press("Shift+-"); // three levels
    return (await page.locator(".leaflet-outlines-pane canvas").count()) > 0 && (await drawn(".leaflet-outlines-pane canvas")) > 100;
  }, "outlines");
  await page.getByRole("button", { name: "Whole track" }).click();
  await awaitNewPositions(); // without a reload
});

test("a field found by its words is plotted, and the cursor shows its value", async () => {
  const search = page.getByRole("combobox", { name: /Add a plot/ });
  await search.fill("latency age");
  await page.getByRole("listbox", { name: "Fields" }).getByRole("option").first().waitFor();
  await search.press("Enter");
  const plot = page.locator("figure.plot", { hasText: "latency" });
  await until(async () => Number(await plot.locator(".plot-box").getAttribute("data-points")) > 0, "points of the latency");
  assert.match(page.url(), /plot=gnss_positions\.latency/);
  await until(async () => / ms$/.test(await plot.locator(".plot-value").textContent()), "the value with its unit");
  // A drag zooms: the range no longer follows, and the address holds it.
  await plot.locator(".u-over").scrollIntoViewIfNeeded();
  const box = await plot.locator(".u-over").boundingBox();
  await page.mouse.move(box.x + box.width * 0.3, box.y + 40);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width * 0.8, box.y + 40, { steps: 4 });
  await page.mouse.up();
  await until(() => /[?&]from=\d+&to=\d+/.test(page.url()), "the range in the address");
  await page.getByRole("button", { name: "Follow newest" }).click();
  await page.getByText("● follows").waitFor();
});

test("what is shown can be downloaded", async () => {
  await page.getByText("Download", { exact: true }).click();
  for (const [name, expected] of [["CSV", /latitude/], ["GPX", /<trkpt/], ["JSON Lines", /orxClientDataReport/]]) {
    const [download] = await Promise.all([page.waitForEvent("download"), page.getByRole("link", { name, exact: false }).click()]);
    assert.match(readFileSync(await download.path(), "utf8"), expected);
  }
  await page.getByText("Download", { exact: true }).click();
});

test("the page recovers when server and broker restart", async () => {
  serverRuns = false;
  tell("backend", "stop");
  tell("broker", "stop");
  tell("broker", "start");
  await page.getByText("connection lost").waitFor();
  tell("backend", "start");
  await page.getByText("live", { exact: true }).waitFor();
  serverRuns = true;
  await awaitNewPositions();
});

test("the page recovers when the database restarts", async () => {
  serverRuns = false;
  tell("database", "kill");
  await page.goto(`${address}#/vehicles`);
  await page.getByRole("alert").first().waitFor();
  tell("database", "start");
  await page.getByRole("link", { name: "bench" }).waitFor();
  serverRuns = true;
  await page.goto(`${address}#/vehicle/bench`);
  await awaitNewPositions();
});

const VIEWS = { "#/vehicles": "Vehicles", "#/vehicle/bench": "bench", "#/configure": "Configure", "#/configure/1": "Commute v1",
  "#/configure/1?as=json": "Commute v1", "#/machine": "This machine", "#/unusable": "Unusable input" };

async function open(view) {
  await page.goto(address + view);
  await page.getByRole("heading", { name: VIEWS[view], level: 1, exact: true }).waitFor();
  await until(async () => (await page.locator(".busy").count()) === 0, `the content of ${view}`);
  if (view === "#/vehicle/bench") await until(async () => (await number(".plot-box", "data-points")) > 0, "plots");
}

for (const scheme of ["light", "dark"]) {
  test(`axe finds nothing serious: ${scheme}`, async () => {
    await page.emulateMedia({ colorScheme: scheme });
    for (const view of Object.keys(VIEWS)) {
      if (scheme === "dark" && (view.includes("json") || view === "#/unusable")) continue;
      await open(view);
      await page.evaluate(axe);
      const { violations } = await page.evaluate((dark) => window.axe.run(document, { resultTypes: ["violations"],
        // Only colours differ between the schemes.
        ...(dark && { runOnly: ["color-contrast"] }) }), scheme === "dark");
      const serious = violations.filter(({ impact }) => impact === "serious" || impact === "critical")
        .map(({ id, nodes }) => `${view}: ${id}: ${nodes.map(({ html }) => html.slice(0, 160)).join(" | ")}`);
      assert.deepEqual(serious, []);
    }
  });
}

test("every view fits 360 pixels", async () => {
  await page.setViewportSize({ width: 360, height: 740 });
  for (const view of Object.keys(VIEWS)) {
    await open(view);
    const tooWide = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
    assert.ok(tooWide <= 0, `${view} is ${tooWide} pixels too wide`);
  }
});

test("the console is free of errors", () => assert.deepEqual(complaints, []));
