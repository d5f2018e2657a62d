// Runs in the page: where texts and markers of the picture really are, as the browser laid them out.
(() => {
  const svg = document.getElementById("roofline");
  const seen = (element) => {
    const style = getComputedStyle(element);
    return style.visibility !== "hidden" && element.getClientRects().length > 0;
  };
  // Corners of the turned box of an element, in pixels of the page.
  const corners = (element) => {
    const { x, y, width, height } = element.getBBox();
    const matrix = element.getScreenCTM();
    return [[x, y], [x + width, y], [x + width, y + height], [x, y + height]].map(([a, b]) => {
      const point = new DOMPoint(a, b).matrixTransform(matrix);
      return [point.x, point.y];
    });
  };
  const overlap = (a, b) => {
    for (const shape of [a, b]) {
      for (let at = 0; at < 4; at++) {
        const [from, to] = [shape[at], shape[(at + 1) % 4]];
        const axis = [to[1] - from[1], from[0] - to[0]];
        const size = Math.hypot(...axis) || 1;
        const along = (points) => points.map((p) => (p[0] * axis[0] + p[1] * axis[1]) / size);
        const [first, second] = [along(a), along(b)];
        const until = Math.min(Math.max(...first), Math.max(...second));
        if (until - Math.max(Math.min(...first), Math.min(...second)) <= 0.5) return false;
      }
    }
    return true;
  };
  const texts = [...svg.querySelectorAll(".roof-label, .region-label, .region-note, .edge-value")].filter(seen)
    .map((element) => ({ name: element.textContent, box: corners(element) }));
  const markers = [...svg.querySelectorAll(".region .marker, .edge-arrow")].filter(seen)
    .map((element) => ({ name: `a marker of ${element.dataset.level}`, box: corners(element) }));
  const plot = svg.querySelector(".plot").getBoundingClientRect();
  const faults = [];
  texts.forEach((one, at) => {
    for (const other of [...texts.slice(at + 1), ...markers]) {
      if (overlap(one.box, other.box)) faults.push(`"${one.name}" overlaps "${other.name}"`);
    }
    const out = one.box.some(([x, y]) =>
      x < plot.left - 1 || x > plot.right + 1 || y < plot.top - 1 || y > plot.bottom + 1);
    if (out) faults.push(`"${one.name}" leaves the frame`);
  });
  return { faults, texts: texts.length };
})()
