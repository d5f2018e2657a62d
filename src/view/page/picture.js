// The picture: coordinates, zoom, ticks and the labels along the roofs.
"use strict";
ceilview.picture = (() => {
  const { all, svg, place } = ceilview;

  // ---- The picture's coordinates ----

  const num = (element, name) => Number(element.getAttribute("data-" + name));
  const frame = {};
  for (const name of ["x0", "x1", "y0", "y1", "left", "right", "top", "bottom"]) frame[name] = num(svg, name);
  const unitsX = (frame.right - frame.left) / (frame.x1 - frame.x0);
  const unitsY = (frame.bottom - frame.top) / (frame.y1 - frame.y0);
  let view = d3.zoomIdentity;
  const x = (lg) => view.applyX(frame.left + (lg - frame.x0) * unitsX);
  const y = (lg) => view.applyY(frame.bottom - (lg - frame.y0) * unitsY);
  const lgX = (px) => frame.x0 + (view.invertX(px) - frame.left) / unitsX;
  const lgY = (py) => frame.y0 + (frame.bottom - view.invertY(py)) / unitsY;
  const inside = (px, py) =>
    px >= frame.left - 0.5 && px <= frame.right + 0.5 && py >= frame.top - 0.5 && py <= frame.bottom + 0.5;
  const text = (number) => number.toFixed(2);
  const move = (element, px, py, turn) =>
    element.setAttribute("transform", "translate(" + text(px) + " " + text(py) + ")" + (turn || ""));

  // What the program wrote of each element that moves: the whole picture comes back exactly as it was.
  const written = new Map();
  for (const element of all("line, path, text, .tick", svg)) {
    const old = {};
    for (const name of ["x1", "y1", "x2", "y2", "x", "y", "d", "transform", "text-anchor"]) {
      old[name] = element.getAttribute(name);
    }
    written.set(element, old);
  }
  const restore = () => {
    for (const label of all(".roof-label.added", svg)) label.remove();
    for (const [element, old] of written) {
      for (const name of Object.keys(old)) {
        if (old[name] === null) element.removeAttribute(name);
        else element.setAttribute(name, old[name]);
      }
      element.classList.remove("outside");
    }
  };

  // ---- Grid and ticks ----

  const grid = svg.querySelector(".grid");
  const axes = { x: svg.querySelector(".axis[data-axis=x]"), y: svg.querySelector(".axis[data-axis=y]") };
  const firstGrid = Array.from(grid.childNodes);
  const firstAxis = { x: Array.from(axes.x.childNodes), y: Array.from(axes.y.childNodes) };
  const patterns = {};  // a line of the grid and a tick of each axis
  for (const axis of ["x", "y"]) {
    const line = grid.querySelector(".major[data-axis=" + axis + "]");
    patterns[axis] = { line, tick: axes[axis].querySelector(".tick") };
  }

  const tickText = (value) => {
    const short = Number(value.toPrecision(6));
    return short >= 1e-4 && short < 1e7 ? String(short) : short.toExponential();
  };

  const addGridLine = (axis, lg, decade) => {
    const line = patterns[axis].line.cloneNode(false);
    line.setAttribute("class", decade ? "major" : "minor");
    line.dataset.at = lg;
    if (axis === "x") place(line, { x1: text(x(lg)), x2: text(x(lg)) });
    else place(line, { y1: text(y(lg)), y2: text(y(lg)) });
    grid.append(line);
  };

  const addTick = (axis, lg, words) => {
    const tick = patterns[axis].tick.cloneNode(true);
    tick.dataset.at = lg;
    const line = tick.querySelector("line");
    const label = tick.querySelector("text");
    label.textContent = words;
    if (axis === "x") {
      place(line, { x1: text(x(lg)), x2: text(x(lg)) });
      place(label, { x: text(x(lg)) });
    } else {
      place(line, { y1: text(y(lg)), y2: text(y(lg)) });
      place(label, { y: text(y(lg) + 4) });
    }
    axes[axis].append(tick);
  };

  const layTicks = (axis) => {
    const from = axis === "x" ? lgX(frame.left) : lgY(frame.bottom);
    const to = axis === "x" ? lgX(frame.right) : lgY(frame.top);
    const range = axis === "x" ? [frame.left, frame.right] : [frame.bottom, frame.top];
    for (const value of d3.scaleLog([Math.pow(10, from), Math.pow(10, to)], range).ticks(10)) {
      const lg = Math.log10(value);
      const decade = Math.abs(lg - Math.round(lg)) < 1e-9;
      const digit = Math.round(value / Math.pow(10, Math.floor(lg + 1e-9)));
      addGridLine(axis, lg, decade);
      const wide = to - from;
      if (decade || wide < 1 || (wide < 2 && (digit === 2 || digit === 5))) addTick(axis, lg, tickText(value));
    }
  };

  const drawAxes = (whole) => {
    grid.replaceChildren(...(whole ? firstGrid : []));
    for (const axis of ["x", "y"]) {
      axes[axis].replaceChildren(...firstAxis[axis].filter((node) => whole || !node.matches || !node.matches(".tick")));
      if (!whole) layTicks(axis);
    }
  };

  // ---- Labels of roofs: along their lines, off one another ----

  // A turned rectangle as its four corners.
  const corners = (px, py, width, height, degrees) => {
    const turn = (degrees * Math.PI) / 180;
    const [c, s] = [Math.cos(turn), Math.sin(turn)];
    return [[0, 0], [width, 0], [width, height], [0, height]].map(([a, b]) => [px + a * c - b * s, py + a * s + b * c]);
  };
  // Two convex shapes are apart if one of their sides has all of the other on its far side.
  const apart = (a, b) => [a, b].some((shape) => shape.some((from, at) => {
    const to = shape[(at + 1) % shape.length];
    const axis = [to[1] - from[1], from[0] - to[0]];
    const along = (points) => points.map((point) => point[0] * axis[0] + point[1] * axis[1]);
    const [first, second] = [along(a), along(b)];
    return Math.max(...first) <= Math.min(...second) || Math.max(...second) <= Math.min(...first);
  }));

  // The part of a line that lies in the plot, as two points; empty if there is none.
  const visiblePart = (x1, y1, x2, y2) => {
    let [from, to] = [0, 1];
    const sides = [[x1, x2 - x1, frame.left, frame.right], [y1, y2 - y1, frame.top, frame.bottom]];
    for (const [start, step, low, high] of sides) {
      if (step === 0) {
        if (start < low || start > high) return [];
        continue;
      }
      const ends = [(low - start) / step, (high - start) / step].sort((a, b) => a - b);
      from = Math.max(from, ends[0]);
      to = Math.min(to, ends[1]);
    }
    if (from >= to) return [];
    return [[x1 + from * (x2 - x1), y1 + from * (y2 - y1)], [x1 + to * (x2 - x1), y1 + to * (y2 - y1)]];
  };

  const shownRoofs = () => all(".roofs:not([hidden]) > .roof:not([hidden])", svg);

  const labelOf = (roof) => {
    let label = roof.querySelector(".roof-label");
    if (!label) {
      label = document.createElementNS("http://www.w3.org/2000/svg", "text");
      place(label, { class: "roof-label added" });
      label.textContent = roof.dataset.text;
      roof.append(label);
    }
    return label;
  };

  const obstacles = () => {
    const boxes = [];
    const add = (box) => boxes.push(corners(box.x - 2, box.y - 2, box.width + 4, box.height + 4, 0));
    for (const element of all(".region:not(.filtered) :is(.region-label, .region-note, .edge-value)", svg)) {
      if (!element.classList.contains("outside")) add(element.getBBox());
    }
    for (const marker of all(".region:not(.filtered) .marker:not(.outside)", svg)) {
      const size = num(marker, "size");
      add({ x: x(num(marker, "x")) - size, y: y(num(marker, "y")) - size, width: 2 * size, height: 2 * size });
    }
    return boxes;
  };

  const layLabel = (roof, taken) => {
    const label = labelOf(roof);
    const line = roof.querySelector(".roof-line");
    const ends = visiblePart(x(num(line, "x1")), y(num(line, "y1")), x(num(line, "x2")), y(num(line, "y2")));
    label.classList.add("outside");
    if (ends.length === 0) return;
    const [[x1, y1], [x2, y2]] = ends;
    const angle = (Math.atan2(y2 - y1, x2 - x1) * 180) / Math.PI;
    const { width, height } = label.getBBox();
    const length = Math.hypot(x2 - x1, y2 - y1);
    for (const part of [0.5, 0.35, 0.65, 0.22, 0.78, 0.1, 0.9, 0.02, 0.98]) {
      const start = part * (length - width);
      if (start < 0) return;
      const [c, s] = [(x2 - x1) / length, (y2 - y1) / length];
      const [px, py] = [x1 + start * c, y1 + start * s];
      const box = corners(px + (5 + height) * s, py - (5 + height) * c, width, height, angle);
      if (!box.every((point) => inside(point[0], point[1])) || !taken.every((other) => apart(box, other))) continue;
      place(label, { "text-anchor": "start", x: 0, y: -5 });
      move(label, px, py, " rotate(" + text(angle) + ")");
      label.classList.remove("outside");
      taken.push(box);
      return;
    }
  };

  // ---- Everything else that moves ----

  // An arrow stays at its edge and moves along it.
  const edgePlace = (arrow) => {
    const [px, py, edge] = [x(num(arrow, "x")), y(num(arrow, "y")), arrow.dataset.edge];
    return [edge === "left" ? frame.left + 9 : edge === "right" ? frame.right - 9 : px,
      edge === "top" ? frame.top + 9 : edge === "bottom" ? frame.bottom - 9 : py];
  };

  const drawRegions = () => {
    for (const line of all(".region-line", svg)) {
      place(line, { x1: text(x(num(line, "x1"))), x2: text(x(num(line, "x2"))), y1: text(y(num(line, "y"))),
        y2: text(y(num(line, "y"))) });
    }
    for (const mark of all(".region .marker", svg)) {
      const [px, py] = [x(num(mark, "x")), y(num(mark, "y"))];
      move(mark, px, py);
      mark.classList.toggle("outside", !inside(px, py));
    }
    for (const label of all(".region-label, .region-note, .edge-value", svg)) {
      const arrow = label.classList.contains("edge-value") && label.previousElementSibling;
      const [px, py] = arrow ? edgePlace(arrow) : [x(num(label, "x")), y(num(label, "y"))];
      place(label, { x: text(px + num(label, "dx")), y: text(py + num(label, "dy")) });
      const box = label.getBBox();
      label.classList.toggle("outside", !inside(box.x, box.y) || !inside(box.x + box.width, box.y + box.height));
    }
    for (const arrow of all(".edge-arrow", svg)) {
      const [px, py] = edgePlace(arrow);
      move(arrow, px, py);
      arrow.classList.toggle("outside", !inside(px, py));
    }
    for (const path of all(".move", svg)) {
      const [x1, y1, x2, y2] = [x(num(path, "x1")), y(num(path, "y1")), x(num(path, "x2")), y(num(path, "y2"))];
      const angle = Math.atan2(y2 - y1, x2 - x1);
      const tip = text(x2) + " " + text(y2);
      const stroke = (turn) => text(x2 - 8 * Math.cos(angle + turn)) + " " + text(y2 - 8 * Math.sin(angle + turn));
      const head = "M" + stroke(0.45) + "L" + tip + "L" + stroke(-0.45);
      place(path, { d: "M" + text(x1) + " " + text(y1) + "L" + tip + head });
    }
  };

  const draw = () => {
    const whole = view.k === 1 && view.x === 0 && view.y === 0;
    restore();
    drawAxes(whole);
    if (whole) return;
    drawRegions();
    for (const line of all(".roof-line", svg)) {
      place(line, { x1: text(x(num(line, "x1"))), y1: text(y(num(line, "y1"))), x2: text(x(num(line, "x2"))),
        y2: text(y(num(line, "y2"))) });
    }
    const taken = obstacles();
    for (const roof of shownRoofs()) layLabel(roof, taken);
  };

  const plot = [[frame.left, frame.top], [frame.right, frame.bottom]];
  const zoom = d3.zoom().extent(plot).translateExtent(plot).scaleExtent([1, 200]).clickDistance(4).duration(0)
    // A plain wheel and a single finger scroll the page.
    .filter((event) => event.type === "wheel" ? event.ctrlKey || event.metaKey
      : event.type === "touchstart" ? event.touches.length > 1 : !event.button)
    .on("zoom", (event) => {
      view = event.transform;
      draw();
    });
  const moved = d3.select(svg).call(zoom).on("dblclick.zoom", null);

  // A region that the keyboard reaches has to be seen: what lies outside comes into the middle.
  const show = (region) => {
    const mark = region.querySelector(".marker");
    if (!mark || region.querySelector(".marker:not(.outside)")) return;
    moved.call(zoom.translateTo, view.invertX(x(num(mark, "x"))), view.invertY(y(num(mark, "y"))));
  };

  // Zooms about a region, or about the middle.
  const scale = (factor, region) => {
    const mark = region && region.querySelector(".marker:not(.outside)");
    moved.call(zoom.scaleBy, factor, mark ? [x(num(mark, "x")), y(num(mark, "y"))] : undefined);
  };

  return {
    draw,
    show,
    scale,
    pan: (px, py) => moved.call(zoom.translateBy, px / view.k, py / view.k),
    whole: () => moved.call(zoom.transform, d3.zoomIdentity),
  };
})();
