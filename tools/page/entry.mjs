// What the page uses of D3. Each name here is a member of the global `d3` in the built file.
export { select } from "d3-selection";
export { zoom, zoomIdentity } from "d3-zoom";
export { scaleLog } from "d3-scale";
