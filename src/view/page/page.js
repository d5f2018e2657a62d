// Moves the picture and the tables that the program wrote; nothing is calculated here but places on the screen.
// Texts are written as texts, never as markup: names of regions and modules come from strangers.
"use strict";
(() => {
  const byId = (id) => document.getElementById(id);
  const all = (selector, within) => Array.from((within || document).querySelectorAll(selector));
  const data = JSON.parse(byId("ceilview-data").textContent);
  const svg = byId("roofline");
  const controls = byId("controls");

  const make = (tag, className, text) => {
    const element = document.createElement(tag);
    if (className) element.className = className;
    if (text !== undefined) element.textContent = text;
    return element;
  };
  const attributes = (element, values) => {
    for (const name of Object.keys(values)) element.setAttribute(name, values[name]);
    return element;
  };
  const regionData = (file, region) => (data.files[file] ? data.files[file].regions[region] : undefined);
  const keyOf = (element) => element.dataset.file + "-" + element.dataset.region;
  const say = (text) => { byId("status").textContent = text; };

  // ---- The picture's coordinates ----

  const num = (element, name) => Number(element.getAttribute("data-" + name));
  const frame = {};
  for (const name of ["x0", "x1", "y0", "y1", "left", "right", "top", "bottom"]) frame[name] = num(svg, name);
  const xOf = (lg) => frame.left + ((lg - frame.x0) / (frame.x1 - frame.x0)) * (frame.right - frame.left);
  const yOf = (lg) => frame.bottom - ((lg - frame.y0) / (frame.y1 - frame.y0)) * (frame.bottom - frame.top);
  let transform = d3.zoomIdentity;
  const x = (lg) => transform.applyX(xOf(lg));
  const y = (lg) => transform.applyY(yOf(lg));
  const inside = (px, py, slack) =>
    px >= frame.left - slack && px <= frame.right + slack && py >= frame.top - slack && py <= frame.bottom + slack;

  // Every moved element keeps what the program wrote, so that the whole picture comes back byte for byte.
  const originals = new Map();
  const keep = (element, names) => {
    const old = {};
    for (const name of names) old[name] = element.getAttribute(name);
    originals.set(element, old);
    return element;
  };
  const restore = () => {
    for (const [element, old] of originals) {
      for (const name of Object.keys(old)) {
        if (old[name] === null) element.removeAttribute(name);
        else element.setAttribute(name, old[name]);
      }
      element.classList.remove("outside");
    }
  };
})();
