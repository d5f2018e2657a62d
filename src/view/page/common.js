// Moves the picture and the tables that the program wrote; no figure is calculated here, only places on the screen.
// Texts are written as texts, never as markup: names of regions and modules come from strangers.
//
// The program puts the four files of this folder into one script, in the order common, picture, tables, page. Each adds
// to this one object.
"use strict";
const ceilview = (() => {
  const byId = (id) => document.getElementById(id);
  const all = (selector, within) => Array.from((within || document).querySelectorAll(selector));
  const data = JSON.parse(byId("ceilview-data").textContent);
  const svg = byId("roofline");

  const make = (tag, className, text) => {
    const element = document.createElement(tag);
    if (className) element.className = className;
    if (text !== undefined) element.textContent = text;
    return element;
  };
  const place = (element, values) => {
    for (const name of Object.keys(values)) element.setAttribute(name, values[name]);
    return element;
  };
  const dataOf = (element) => data.files[element.dataset.file].regions[element.dataset.region];
  const say = (text) => { byId("status").textContent = text; };

  // The rows of all tables that stand for a region.
  const rows = () => all("tr[data-region]");

  return { byId, all, data, svg, make, place, dataOf, say, rows };
})();
