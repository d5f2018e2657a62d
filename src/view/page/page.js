// What a reader does: select and filter regions, read tooltips, choose level, thread count and roofs.
"use strict";
(() => {
  const { byId, all, data, svg, make, place, dataOf, say, rows } = ceilview;
  const { draw, show, scale, pan, whole } = ceilview.picture;
  const picture = byId("picture");
  const tooltip = byId("tooltip");

  // ---- Selection and filter ----

  let selected = null;  // a region's name: in a comparison it means the region in both files
  const regions = all(".region", svg);

  const showBlocks = () => {
    for (const details of all("#blocks details")) {
      const mine = selected !== null && dataOf(details).name === selected;
      details.hidden = details.classList.contains("filtered") || (selected !== null && !mine);
      if (mine) details.open = true;
    }
  };

  const select = (name) => {
    selected = selected === name ? null : name;
    svg.classList.toggle("has-selection", selected !== null);
    for (const element of [...regions, ...rows()]) {
      const mine = selected !== null && dataOf(element).name === selected;
      element.classList.toggle("selected", mine);
      const button = element.querySelector("button.pick") || element;
      if (element.querySelector("button.pick") || element.getAttribute("role") === "button") {
        button.setAttribute("aria-pressed", String(mine));
      }
    }
    byId("clear").disabled = selected === null;
    say(selected === null ? "No region is selected." : "Selected: " + selected);
    showBlocks();
  };
  const clear = () => { if (selected !== null) select(selected); };

  const filter = () => {
    const part = byId("filter").value.toLowerCase();
    const times = data.files.flatMap((file) => file.regions.map((region) => Number(region.time)));
    const least = Number(byId("least").value) * Math.max(0, ...times);
    const passes = (element) => {
      const region = dataOf(element);
      return region.name.toLowerCase().includes(part) && Number(region.time) >= least;
    };
    for (const row of rows()) row.hidden = !passes(row);
    for (const element of [...regions, ...all("#blocks details")]) {
      element.classList.toggle("filtered", !passes(element));
    }
    const left = regions.filter((region) => !region.classList.contains("filtered")).length;
    say(left + " of " + regions.length + (regions.length === 1 ? " region" : " regions"));
    showBlocks();
    draw();
  };

  // ---- Tooltips ----

  const hideTooltip = () => { tooltip.hidden = true; };

  const showTooltip = (lines, here, px, py) => {
    const lineOf = (line, at) => make(at === 0 ? "b" : "div", line === here ? "here" : "", line);
    tooltip.replaceChildren(...lines.map(lineOf));
    tooltip.hidden = false;
    const box = tooltip.getBoundingClientRect();
    const left = px + 14 + box.width > innerWidth ? px - 14 - box.width : px + 14;
    const top = py + 14 + box.height > innerHeight ? py - 14 - box.height : py + 14;
    tooltip.style.left = Math.max(4, left) + "px";
    tooltip.style.top = Math.max(4, top) + "px";
  };

  const explain = (target, px, py) => {
    const region = target.closest(".region");
    const roof = target.closest(".roof");
    if (region) {
      const about = dataOf(region);
      const mark = target.closest("[data-level]");
      const here = mark && mark !== svg ? about.levels[mark.dataset.level] : "";
      showTooltip([about.name, ...about.lines, ...Object.values(about.levels)], here, px, py);
    } else if (roof) {
      showTooltip([roof.dataset.text], "", px, py);
    } else {
      hideTooltip();
    }
  };

  // ---- Controls ----

  const showMoves = () => {
    const level = svg.dataset.level === "all" ? "ddr" : svg.dataset.level;
    for (const path of all(".move", svg)) path.toggleAttribute("hidden", path.dataset.level !== level);
  };

  const makeRoofChoice = () => {
    const choices = byId("roof-choice").querySelector(".choices");
    choices.replaceChildren();
    for (const roof of all(".roofs:not([hidden]) > .roof", svg)) {
      const label = make("label");
      const box = place(make("input"), { type: "checkbox" });
      box.checked = !roof.hasAttribute("hidden");
      label.append(box, roof.dataset.text);
      choices.append(label);
      box.addEventListener("change", () => {
        roof.toggleAttribute("hidden", !box.checked);
        draw();
      });
    }
    byId("roof-choice").hidden = choices.children.length === 0;
  };

  const makeControls = () => {
    const level = byId("level");
    const threads = byId("threads");
    level.value = svg.dataset.level;
    level.addEventListener("change", () => {
      svg.dataset.level = level.value;
      showMoves();
      say(level.value === "all" ? "Points of all levels." : "Points of " + level.value.toUpperCase() + ".");
    });
    const sets = all(".roofs", svg);
    const counts = [...new Set(sets.map((set) => set.dataset.threads))].sort((a, b) => a - b);
    for (const count of counts) {
      const option = make("option", "", count + (count === "1" ? " thread" : " threads"));
      option.value = count;
      threads.append(option);
    }
    threads.value = svg.dataset.threads;
    threads.closest("label").hidden = counts.length === 0;
    threads.addEventListener("change", () => {
      for (const set of sets) set.toggleAttribute("hidden", set.dataset.threads !== threads.value);
      svg.dataset.threads = threads.value;
      makeRoofChoice();
      draw();
      say("Roofs of " + threads.selectedOptions[0].textContent + ".");
    });
    const chosen = () => regions.find((region) => region.classList.contains("selected"));
    byId("zoom-in").addEventListener("click", () => scale(1.6, chosen()));
    byId("zoom-out").addEventListener("click", () => scale(1 / 1.6, chosen()));
    byId("zoom-reset").addEventListener("click", whole);
    byId("clear").addEventListener("click", clear);
    byId("filter").addEventListener("input", filter);
    byId("least").addEventListener("change", filter);
    byId("controls").addEventListener("submit", (event) => event.preventDefault());
    byId("controls").hidden = false;
    byId("help").hidden = false;
    picture.classList.add("moves");
  };

  const keys = {
    "+": (region) => scale(1.6, region), "=": (region) => scale(1.6, region),
    "-": (region) => scale(1 / 1.6, region), "0": whole,
    ArrowLeft: () => pan(60, 0), ArrowRight: () => pan(-60, 0), ArrowUp: () => pan(0, 60), ArrowDown: () => pan(0, -60),
  };

  const makePicture = () => {
    for (const region of regions) {
      place(region, { role: "button", "aria-pressed": "false" });
      // A name that is read out has to begin with what is seen.
      const shown = region.querySelector(".region-note, .region-label");
      const label = region.getAttribute("aria-label");
      if (shown && !label.startsWith(shown.textContent)) {
        place(region, { "aria-label": shown.textContent + ". " + label });
      }
      // The tooltip says more than the title would.
      for (const title of all("title", region)) title.remove();
      region.addEventListener("click", () => select(dataOf(region).name));
      region.addEventListener("focus", () => {
        show(region);
        const mark = region.querySelector(".marker:not(.outside)") || region;
        const box = mark.getBoundingClientRect();
        explain(region, box.right, box.bottom);
      });
      region.addEventListener("blur", hideTooltip);
    }
    svg.addEventListener("pointermove", (event) => {
      if (event.buttons === 0) explain(event.target, event.clientX, event.clientY);
      else hideTooltip();
    });
    svg.addEventListener("pointerleave", hideTooltip);
    svg.addEventListener("keydown", (event) => {
      if (event.ctrlKey || event.metaKey || event.altKey) return;
      const region = event.target.closest(".region");
      if (region && (event.key === "Enter" || event.key === " ")) select(dataOf(region).name);
      else if (keys[event.key]) keys[event.key](region);
      else return;
      event.preventDefault();
    });
    document.addEventListener("keydown", (event) => {
      if (event.key !== "Escape") return;
      if (tooltip.hidden) clear();
      hideTooltip();
    });
  };

  makePicture();
  makeControls();
  makeRoofChoice();
  ceilview.tables.start(select);
  showMoves();
})();
