// The pages in a real browser. One browser serves all tests; each opens the page that it needs.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { pathToFileURL } from "node:url";

import { files, heat } from "./results.mjs";

const require = createRequire(import.meta.url);
const { chromium } = require("playwright-core");
const axe = readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");
const shapes = readFileSync(new URL("shapes.js", import.meta.url), "utf8");
const [program, ...leading] = JSON.parse(process.env.CEILVIEW);

let browser;
let folder;
const paths = {};

const write = (name, result) => {
  paths[name] = join(folder, `${name}.json`);
  writeFileSync(paths[name], JSON.stringify(result));
};
const view = (name, ...words) => {
  const page = join(folder, `${name}.html`);
  execFileSync(program, [...leading, ...words, "-o", page]);
  return pathToFileURL(page).href;
};
const urls = {};

before(async () => {
  folder = mkdtempSync(join(tmpdir(), "ceilview-pages-"));
  for (const [name, result] of Object.entries({ ...files, faster: heat(0.8, 1.2) })) {
    write(name, result);
    urls[name] = view(name, paths[name]);
  }
  urls.baseline = view("baseline", "--baseline", paths.heat, paths.faster);
  urls.overlay = view("overlay", paths.heat, paths.faster);
  urls.ranks = view("ranks", "--ranks", paths.heat, paths.faster, paths.heat);
  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM,
    headless: true,
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
      "--disable-component-update", "--disable-sync"],
  });
});

after(async () => {
  await browser?.close();
  rmSync(folder, { recursive: true, force: true });
});

// A context for each kind of reader; starting one takes longer than most tests.
const contexts = new Map();
const contextOf = async (options) => {
  const key = JSON.stringify(options);
  if (!contexts.has(key)) {
    const context = await browser.newContext({ viewport: { width: 1280, height: 900 }, ...options });
    await context.addInitScript(() => {
      window.policyReports = [];
      document.addEventListener("securitypolicyviolation", (event) => {
        window.policyReports.push(`${event.violatedDirective} ${event.blockedURI}`);
      });
    });
    contexts.set(key, context);
  }
  return contexts.get(key);
};

// Opens a page, gives it to `use`, and returns what was asked for and complained about meanwhile.
const open = async (url, use = async () => {}, options = {}) => {
  const page = await (await contextOf(options)).newPage();
  const seen = { requests: [], complaints: [] };
  try {
    page.on("request", (request) => seen.requests.push(request.url()));
    page.on("console", (message) => seen.complaints.push(message.text()));
    page.on("pageerror", (error) => seen.complaints.push(error.message));
    await page.goto(url);
    await use(page);
    if (options.javaScriptEnabled !== false) {
      seen.reports = await page.evaluate(() => window.policyReports);
    }
  } finally {
    await page.close();
  }
  return seen;
};

const everyPage = () => Object.entries(urls);

test("every page loads nothing but itself and nothing complains", async () => {
  for (const [name, url] of everyPage()) {
    const seen = await open(url, async (page) => {
      assert.equal(await page.locator("#controls").isVisible(), true, `${name}: the script has run`);
    });
    assert.deepEqual(seen, { requests: [url], complaints: [], reports: [] }, name);
  }
});

test("the policy stops scripts, styles, images and markup that are not the page's own", async () => {
  const seen = await open(urls.heat, async (page) => {
    await page.evaluate(() => {
      const style = document.createElement("style");
      style.textContent = "body { display: none }";
      document.head.append(style);
      const image = new Image();
      image.src = "https://example.invalid/x.png";
      document.body.append(document.createElement("script"));
      // Text that is assigned as a script's or as markup throws before anything else looks at it.
      const refused = (assign) => {
        try {
          assign();
        } catch (error) {
          document.body.dataset.refused = Number(document.body.dataset.refused ?? 0) + (error instanceof TypeError);
        }
      };
      refused(() => { document.querySelector("body > script:last-child").textContent = "document.title = 'ran'"; });
      refused(() => { document.body.innerHTML = "<p>replaced</p>"; });
      refused(() => document.body.setAttribute("onclick", "document.title = 'ran'"));
    });
    assert.equal(await page.locator("body").getAttribute("data-refused"), "3");
    assert.notEqual(await page.title(), "ran");
    assert.equal(await page.locator("main").isVisible(), true);
  });
  const stopped = [...new Set(seen.reports.map((report) => report.split(" ")[0]))].sort();
  assert.deepEqual(stopped, ["img-src", "require-trusted-types-for", "style-src-elem"]);
});

test("markup in a region's name is shown as text and does nothing", async () => {
  await open(urls.strangers, async (page) => {
    const name = Object.keys(files.strangers.regions)[0];
    assert.match(name, /<img/);
    assert.equal(await page.locator("img").count(), 0);
    assert.equal(await page.locator("#table-regions button.pick").first().textContent(), name);
    const region = page.locator(".region[data-region='0']");
    await region.focus();
    await page.keyboard.press("Enter");
    assert.equal(await page.locator("#tooltip b").textContent(), name);
    assert.equal(await page.locator("#status").textContent(), `Selected: ${name}`);
    assert.notEqual(await page.title(), "1");
    assert.equal(await page.locator("script").count(), 3);
  });
});

test("without script the picture and all tables are there", async () => {
  await open(urls.states, async (page) => {
    assert.equal(await page.locator("#controls").isVisible(), false);
    assert.equal(await page.locator("#roofline .marker").first().isVisible(), true);
    for (const table of ["table-regions", "table-levels", "table-shares", "table-roofs-0", "table-blocks-0-0"]) {
      assert.equal(await page.locator(`#${table}`).isVisible(), true, table);
    }
    for (const region of Object.keys(files.states.regions)) {
      assert.equal(await page.locator("#table-regions th", { hasText: region }).first().isVisible(), true, region);
    }
    for (const region of ["not traced", "no operations", "no counters", "no bytes"]) {
      assert.equal(await page.locator("#missing li", { hasText: region }).count(), 1, region);
    }
  }, { javaScriptEnabled: false });
});

// Scales by the texts of the ticks, and with them the place of everything that carries its figure.
const measure = (page) => page.evaluate(() => {
  const number = (element, name) => Number(element.getAttribute(name));
  const ticks = (axis) => [...document.querySelectorAll(`.axis[data-axis=${axis}] .tick`)].map((tick) => ({
    lg: Math.log10(Number(tick.querySelector("text").textContent)),
    at: number(tick.querySelector("line"), axis + "1"),
  }));
  const shown = (element) => getComputedStyle(element).visibility === "visible" && element.getClientRects().length > 0;
  return {
    x: ticks("x"), y: ticks("y"),
    markers: [...document.querySelectorAll(".region .marker")].filter(shown).map((marker) => ({
      lg: [number(marker, "data-x"), number(marker, "data-y")],
      at: /translate\((\S+) (\S+)\)/.exec(marker.getAttribute("transform")).slice(1).map(Number),
    })),
    roofs: [...document.querySelectorAll(".roofs:not([hidden]) .roof:not([hidden])")].map((roof) => {
      const line = roof.querySelector(".roof-line");
      const label = roof.querySelector(".roof-label");
      const turned = label && /rotate\((\S+)\)/.exec(label.getAttribute("transform"));
      const turn = label && shown(label) ? Number(turned?.[1] ?? 0) : null;
      return { memory: roof.dataset.kind === "memory", value: number(roof, "data-value"), turn,
        ends: ["x1", "y1", "x2", "y2"].map((name) => number(line, name)) };
    }),
  };
});

const near = (a, b, slack, what) => assert.ok(Math.abs(a - b) <= slack, `${what}: ${a}, expected ${b}`);

// Checks one state of the picture against the scales that its ticks tell.
const checkScales = ({ x, y, markers, roofs }, what) => {
  const scale = (ticks) => {
    assert.ok(ticks.length >= 2, `${what}: ${ticks.length} ticks`);
    const [first, last] = [ticks[0], ticks[ticks.length - 1]];
    const unit = (last.at - first.at) / (last.lg - first.lg);
    const place = (lg) => first.at + (lg - first.lg) * unit;
    for (const tick of ticks) near(tick.at, place(tick.lg), 0.2, `${what}: tick ${10 ** tick.lg}`);
    return { place, unit };
  };
  const [across, up] = [scale(x), scale(y)];
  for (const { lg, at } of markers) {
    near(at[0], across.place(lg[0]), 0.5, `${what}: marker`);
    near(at[1], up.place(lg[1]), 0.5, `${what}: marker`);
  }
  const angle = (Math.atan2(up.unit, across.unit) * 180) / Math.PI;
  for (const { memory, value, turn, ends: [x1, y1, x2, y2] } of roofs) {
    if (x1 === x2 && y1 === y2) continue;
    near((Math.atan2(y2 - y1, x2 - x1) * 180) / Math.PI, memory ? angle : 0, 0.1, `${what}: angle of a roof`);
    if (turn !== null) near(turn, memory ? angle : 0, 0.1, `${what}: angle of a label`);
    const lgX = (x1 - across.place(0)) / across.unit;
    const lgY = (y1 - up.place(0)) / up.unit;
    near(memory ? lgY - lgX : lgY, value, 0.01, `${what}: value of a roof`);
  }
  return angle;
};

test("zoom keeps the angles of roofs and the values of ticks right, and comes back exactly", async () => {
  for (const name of ["heat", "fast", "baseline"]) {
    await open(urls[name], async (page) => {
      const picture = () => page.locator("#roofline").evaluate((svg) => svg.innerHTML);
      const first = await picture();
      const angle = checkScales(await measure(page), `${name}, whole`);
      for (let step = 1; step <= 6; step++) {
        await page.locator("#zoom-in").click();
        near(checkScales(await measure(page), `${name}, step ${step}`), angle, 0.1, `${name}: angle of all roofs`);
      }
      assert.ok(await picture() !== first);
      await page.locator("#zoom-reset").click();
      assert.ok(await picture() === first, `${name}: the whole picture is as it was`);
    });
  }
});

test("dragging and the wheel move the picture; a plain wheel scrolls the page", async () => {
  await open(urls.heat, async (page) => {
    const marker = page.locator("#region-0-1 .marker").first();
    const before = await marker.getAttribute("transform");
    const box = await page.locator("#roofline .plot").boundingBox();
    await page.mouse.move(box.x + box.width * 0.3, box.y + box.height * 0.3);
    await page.mouse.wheel(0, 100);
    await page.waitForFunction(() => scrollY > 0);
    assert.equal(await marker.getAttribute("transform"), before);
    await page.evaluate(() => scrollTo(0, 0));
    await page.keyboard.down("Control");
    await page.mouse.wheel(0, -300);
    await page.keyboard.up("Control");
    await page.waitForFunction((old) =>
      document.querySelector("#region-0-1 .marker").getAttribute("transform") !== old, before);
    const zoomed = await marker.getAttribute("transform");
    checkScales(await measure(page), "after the wheel");
    await page.mouse.down();
    await page.mouse.move(box.x + box.width * 0.2, box.y + box.height * 0.2, { steps: 3 });
    await page.mouse.up();
    assert.notEqual(await marker.getAttribute("transform"), zoomed);
    checkScales(await measure(page), "after a drag");
  });
});

test("labels overlap neither one another nor a point nor the frame, whole and zoomed", async () => {
  for (const [name, url] of everyPage()) {
    await open(url, async (page) => {
      for (const step of ["whole", "zoomed", "zoomed twice"]) {
        const found = await page.evaluate(shapes);
        assert.deepEqual(found.faults, [], `${name}, ${step}`);
        if (step === "whole") assert.ok(found.texts > 0, `${name} has labels`);
        await page.locator("#zoom-in").click();
      }
    });
  }
});

test("roofs that a click adds, and those of other thread counts, are labelled without overlap", async () => {
  await open(urls.wide, async (page) => {
    await page.locator("#roof-choice summary").click();
    for (const box of await page.locator("#roof-choice input").all()) await box.setChecked(true);
    assert.equal(await page.locator(".roofs:not([hidden]) .roof[hidden]").count(), 0);
    assert.deepEqual((await page.evaluate(shapes)).faults, []);
    for (const count of ["1", "8"]) {
      await page.locator("#threads").selectOption(count);
      assert.equal(await page.locator(`.roofs[data-threads="${count}"]`).getAttribute("hidden"), null);
      assert.equal(await page.locator(".roofs:not([hidden])").count(), 1);
      assert.deepEqual((await page.evaluate(shapes)).faults, [], `${count} threads`);
    }
  });
});

test("the keyboard reaches every region and every control", async () => {
  await open(urls.heat, async (page) => {
    const wanted = await page.evaluate(() => {
      const all = document.querySelectorAll(".region, button, select, input, summary, .scroll");
      const seen = [...all].filter((element) => element.checkVisibility() && !element.disabled);
      seen.forEach((element, at) => { element.dataset.stop = at; });
      return seen.length;
    });
    const reached = new Set();
    for (let step = 0; step < wanted + 20; step++) {
      await page.keyboard.press("Tab");
      const stop = await page.evaluate(() => document.activeElement.dataset.stop ?? null);
      if (stop !== null) reached.add(stop);
    }
    assert.equal(reached.size, wanted);
    const focusable = await page.locator(".region").evaluateAll((list) => list.map((one) => one.dataset.stop));
    assert.equal(focusable.length, 5);
    assert.ok(focusable.every((stop) => reached.has(stop)));
  });
});

test("the keyboard selects, clears, zooms and moves", async () => {
  await open(urls.heat, async (page) => {
    const region = page.locator(".region[data-region='1']");
    await region.focus();
    assert.match(await page.locator("#tooltip").textContent(), /solve.*GFLOP\/s.*DDR: 0\.404 flop\/byte/s);
    await page.keyboard.press("Enter");
    assert.equal(await region.getAttribute("aria-pressed"), "true");
    assert.equal(await page.locator("#table-levels tr.selected th").textContent(), "solve");
    const blocks = page.locator("#blocks details:visible");
    assert.deepEqual(await blocks.evaluateAll((list) => list.map((one) => one.open)), [true]);
    await page.keyboard.press("Escape");
    assert.equal(await page.locator("#tooltip").isVisible(), false);
    await page.keyboard.press("Escape");
    assert.equal(await region.getAttribute("aria-pressed"), "false");
    assert.equal(await blocks.count(), 5);
    const place = () => page.locator(".region[data-region='0'] .marker").first().getAttribute("transform");
    const first = await place();
    await page.keyboard.press("+");
    const zoomed = await place();
    assert.notEqual(zoomed, first);
    await page.keyboard.press("ArrowLeft");
    assert.notEqual(await place(), zoomed);
    await page.keyboard.press("0");
    assert.equal(await place(), first);
  });
});

test("a region that zoom has moved away comes back when it takes the focus", async () => {
  await open(urls.heat, async (page) => {
    const far = page.locator(".region[data-region='4']");
    for (let step = 0; step < 6; step++) await page.locator("#zoom-in").click();
    assert.equal(await far.locator(".marker:not(.outside)").count(), 0);
    await far.focus();
    assert.notEqual(await far.locator(".marker:not(.outside)").count(), 0);
    checkScales(await measure(page), "after the focus");
  });
});

test("tables sort by their exact figures and the filter hides rows and points", async () => {
  await open(urls.heat, async (page) => {
    const names = () => page.locator("#table-regions tbody tr:visible th").allTextContents();
    const head = page.locator("#table-regions th", { hasText: "Time" });
    await head.locator("button").click();
    assert.equal(await head.getAttribute("aria-sort"), "descending");
    assert.deepEqual(await names(), ["solve", "small matrices", "dot product", "assemble", "output"]);
    await head.locator("button").click();
    assert.deepEqual(await names(), ["output", "assemble", "dot product", "small matrices", "solve"]);
    await page.locator("#filter").fill("S");
    assert.deepEqual(await names(), ["assemble", "small matrices", "solve"]);
    assert.equal(await page.locator(".region:visible").count(), 3);
    await page.locator("#least").selectOption("0.1");
    assert.deepEqual((await names()).length, 3);
    await page.locator("#filter").fill("");
    assert.deepEqual(await names(), ["assemble", "dot product", "small matrices", "solve"]);
  });
});

test("one level at a time", async () => {
  await open(urls.heat, async (page) => {
    const shown = () => page.locator(".region .marker:visible").evaluateAll((list) =>
      [...new Set(list.map((one) => one.dataset.level))].sort());
    assert.deepEqual(await shown(), ["ddr", "l1", "l2", "l3"]);
    await page.locator("#level").selectOption("l2");
    assert.deepEqual(await shown(), ["l2"]);
  });
});

test("a baseline shows moves of the chosen level, and ranks show their strip", async () => {
  await open(urls.baseline, async (page) => {
    const levels = () =>
      page.locator(".move:not([hidden])").evaluateAll((list) => list.map((one) => one.dataset.level));
    assert.deepEqual(await levels(), Array(5).fill("ddr"));
    await page.locator("#level").selectOption("l3");
    assert.deepEqual(await levels(), Array(5).fill("l3"));
    assert.equal(await page.locator("#table-comparison tbody tr").count(), 5);
  });
  await open(urls.ranks, async (page) => {
    assert.equal(await page.locator("#table-ranks tbody tr").count(), 5);
    assert.equal(await page.locator("#table-ranks tr:first-child svg.heat rect").count(), 3);
  });
});

test("blocks come in parts, exact, and can be searched", async () => {
  await open(urls.blocks, async (page) => {
    const rows = page.locator("#table-blocks-0-0 tbody tr");
    assert.equal(await rows.count(), 20);
    await page.locator("#blocks .more button").click();
    assert.equal(await rows.count(), 220);
    await page.locator("#blocks .more input").fill("libm");
    assert.equal(await page.locator("#blocks .more .hint").textContent(), "220 of 600");
    const [, , , , , , , libm] = files.blocks.regions.total.bbs[0];
    assert.match(libm, /libm/);
    const sums = files.blocks.regions.total.bbs.map((one) => one[4] * one[5]).sort((a, b) => b - a);
    await page.locator("#blocks .more input").fill("");
    assert.equal(await rows.first().locator("td").nth(2).textContent(), String(sums[0]));
  });
});

test("print gives the picture on one page of A4 landscape and the tables on the next", async () => {
  await open(urls.heat, async (page) => {
    const pdf = (await page.pdf({ preferCSSPageSize: true })).toString("latin1");
    const sizes = [...pdf.matchAll(/\/MediaBox\s*\[([^\]]+)\]/g)]
      .map((match) => match[1].trim().split(/\s+/).map(Number));
    assert.equal(sizes.length, 2);
    for (const [, , width, height] of sizes) {
      near(width, 842, 1.5, "width");
      near(height, 595, 1.5, "height");
    }
    await page.emulateMedia({ media: "print", colorScheme: "dark" });
    const paper = await page.evaluate(() => getComputedStyle(document.documentElement).backgroundColor);
    assert.equal(paper, "rgb(255, 255, 255)");
  });
});

test("the accessibility checker finds nothing, in light and in dark", async () => {
  // Colours are all that differs in the dark, so one page is checked whole there and the others for contrast.
  const pages = ["states", "strangers", "baseline", "ranks"];
  const checks = [...pages.map((name) => [name, "light", {}]), ["states", "dark", {}],
    ...pages.slice(1).map((name) => [name, "dark", { runOnly: ["color-contrast"] }])];
  for (const [name, colorScheme, rules] of checks) {
    await open(urls[name], async (page) => {
      await page.evaluate(axe);
      const { violations, passes } = await page.evaluate((options) => window.axe.run(options), rules);
      const found = violations.map((one) =>
        `${one.id}: ${one.nodes.map((node) => node.target.join(" ")).join(", ")}`);
      assert.deepEqual(found, [], `${name}, ${colorScheme}`);
      assert.ok(passes.some((one) => one.id === "color-contrast"), "contrast was checked");
    }, { colorScheme });
  }
});

// For people: with CEILVIEW_SCREENSHOTS=FOLDER every page is photographed in two widths and both colours.
test("screenshots", { skip: !process.env.CEILVIEW_SCREENSHOTS }, async () => {
  mkdirSync(process.env.CEILVIEW_SCREENSHOTS, { recursive: true });
  for (const [name, url] of everyPage()) {
    for (const [width, colorScheme] of [[1280, "light"], [800, "dark"]]) {
      await open(url, async (page) => {
        await page.screenshot({ fullPage: true,
          path: join(process.env.CEILVIEW_SCREENSHOTS, `${name}-${width}-${colorScheme}.png`) });
      }, { colorScheme, viewport: { width, height: 900 } });
    }
  }
});
