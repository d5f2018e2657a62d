// The contract between the C++ that draws the picture and the page's style and script, which move it.
//
// The picture is one <svg>. Nothing in it has a style attribute, an event attribute or a script: the page's policy
// forbids them. Shapes have classes; colours come from custom properties, which picture_style() defines for light, dark
// and print. All positions in data-* attributes are decimal logarithms of the figure (flop/byte, GFLOP/s), written with
// a dot whatever the locale is; the page's scales are linear in them.
//
//   <svg id="roofline" class="roofline" role="group" viewBox="0 0 1120 716"
//        aria-labelledby="roofline-title roofline-desc"
//        data-x0="-2" data-x1="2" data-y0="-1" data-y1="3"          decades of the frame, whole numbers
//        data-left="72" data-right="1096" data-top="44" data-bottom="640"    the plot's rectangle in viewBox units
//        data-level="all|l1|l2|l3|ddr" data-threads="4" data-mode="single|overlay|baseline|ranks">
//     <title id="roofline-title">..</title><desc id="roofline-desc">..</desc>
//     <style>picture_style()</style>                       only with picture_options::standalone (--svg)
//     <clipPath id="plot-clip"><rect/></clipPath>
//     <rect class="background"/> <rect class="plot"/>
//     <g class="grid" clip-path="url(#plot-clip)">
//       <line class="major" data-axis="x|y" data-at="-1"/>  <line class="minor" data-axis="x|y" data-at="0.301"/>
//     </g>
//     <g class="axis" data-axis="x|y">
//       <g class="tick" data-at="-1"><line/><text>0.1</text></g>  <text class="axis-title">..</text>
//     </g>
//     <g class="roof-sets">
//       <g class="roofs" data-file="0" data-threads="4" [hidden=""]>      one for each thread count; the others hidden
//         <g class="roof [thin] [extra] [scaled] [old]" id="roof-F-T-K" data-roof="DDR" data-kind="memory|compute"
//            data-level="ddr" data-default="1|0" data-value="1.602" data-unit="GB/s" [hidden=""]>
//           data-value is lg(value). A memory roof is y = x + value, a compute roof y = value.
//           <line class="roof-line" clip-path="url(#plot-clip)" data-x1 data-y1 data-x2 data-y2/>
//                                                           data-*: ends in lg; both lie on the roof, not on the frame
//           <text class="roof-label" text-anchor="start|middle|end" transform="translate(X Y) rotate(A)"
//                 data-x data-y data-angle data-offset>DDR 40 GB/s, 4 threads</text>
//         </g>     data-x/y: lg of the anchor on the roof; data-offset: distance of the baseline from it, in units.
//       </g>       A roof whose label found no place has none; it stands in the legend and the table.
//     </g>
//     <g class="regions">
//       <g class="region [before|after] [listed]" id="region-F-N" data-file="0" data-region="N" tabindex="0" role="img"
//          aria-label="solve: 19.2 GFLOP/s, ..." data-y="1.283" data-threads="4">   N: index in the file's regions
//         <line class="region-line" clip-path="url(#plot-clip)" data-x1 data-x2 data-y/>          dashed, at P
//         <path class="marker l1|l2|l3|ddr [hollow] [at-edge]" data-level="l1" data-x="-0.222" data-y="1.283"
//               data-size="9" transform="translate(X Y)" d=".."/>     d is around 0,0: move by transform alone
//         <path class="edge-arrow .." data-edge="left|right|top|bottom" data-level data-x data-y/>
//               a point that lies outside of the widened frame; beside it <text class="edge-value">
//         <text class="region-label" data-x data-y data-dx data-dy text-anchor="..">solve</text>
//         <text class="region-note" ..>bytes were not counted</text>
//       </g>
//     </g>
//     <g class="moves">                                      only in mode baseline
//       <path class="move l1|l2|l3|ddr" data-level data-region="N" data-x1 data-y1 data-x2 data-y2 [hidden=""]/>
//     </g>      N: index in the new file's regions; shown for the chosen level (DDR first)
//     <g class="legend">..</g>                                static; outside of the plot
//     <g class="notes"><text class="note">..</text></g>       "no roofs in this file", ...
//   </svg>
//
// How the script moves things, so this has to hold:
//   grid lines, ticks     stand at their units, without a transform; the script clones one of each axis
//   g.roof                has data-text, the words of its label, also where no label found a place
//   edge-arrow            moves by its transform; its edge-value follows it in the document
//   region-label, -note, edge-value   x = place of data-x plus data-dx, y = place of data-y plus data-dy, both in units
//   path.move             a line and a head of two strokes
//
// State that the page's script sets, and that picture_style() obeys:
//   svg[data-level=l1]       hides markers of the other levels        .region.selected  the chosen region
//   svg.has-selection        dims regions that are not .selected      .region.filtered  hidden by the table's filter
//   [hidden]                 display: none                            :root[data-theme=dark|light]  not as the system
//
// The page around it:
//   <script type="application/json" id="ceilview-data">..</script>  64-bit figures are strings of decimal digits
//   <main>: <figure id="picture"><svg/></figure>, <section id="regions">, <section id="roofs">, <section id="blocks">,
//   <section id="missing">, <section id="remarks">, <section id="comparison">, <section id="ranks">
//   Table rows: <tr data-file="F" data-region="N">, <tr data-file="F" data-threads="T" data-roof="NAME">.
#pragma once

#include <string>
#include <string_view>

namespace ceilmeter::view {

// The style sheet of the picture: for the page to include in its own one, and for the stand-alone picture.
// Custom properties, all on `:root` so that the page can use them too: --ink, --ink-soft, --paper, --plot, --grid,
// --grid-minor, --l1, --l2, --l3, --ddr, --compute, --accent, --warn.
std::string_view picture_style();

}  // namespace ceilmeter::view
