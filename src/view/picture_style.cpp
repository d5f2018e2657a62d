// The colours keep apart for the common colour-blindnesses, and shapes say the same as colours. Each has a contrast of
// at least 4.5 to the paper, so that texts can have it too; picture_style_test computes it.
#include "view/page_parts.h"

namespace ceilmeter::view {

std::string_view picture_style() {
  return R"(:root{--paper:#ffffff;--plot:#ffffff;--ink:#1b1f24;--ink-soft:#57606a;--grid:#d0d7de;--grid-minor:#eceff2;
--l1:#0d45ea;--l2:#8a3200;--l3:#187452;--ddr:#c209ac;--compute:#30363d;--accent:#0550ae;--warn:#8a1c1c}
@media (prefers-color-scheme:dark){:root:not([data-theme=light]){--paper:#14181c;--plot:#14181c;--ink:#e6e9ec;
--ink-soft:#a3adb7;--grid:#3a424a;--grid-minor:#23292f;--l1:#2393fa;--l2:#dd9138;--l3:#2be58c;--ddr:#eca3f2;
--compute:#d7dde3;--accent:#8cc2ff;--warn:#ff9a8f}}
:root[data-theme=dark]{--paper:#14181c;--plot:#14181c;--ink:#e6e9ec;
--ink-soft:#a3adb7;--grid:#3a424a;--grid-minor:#23292f;--l1:#2393fa;--l2:#dd9138;--l3:#2be58c;--ddr:#eca3f2;
--compute:#d7dde3;--accent:#8cc2ff;--warn:#ff9a8f}
@media print{:root,:root:not([data-theme=light]),:root[data-theme=dark]{--paper:#ffffff;--plot:#ffffff;--ink:#1b1f24;
--ink-soft:#57606a;--grid:#d0d7de;--grid-minor:#eceff2;--l1:#0d45ea;--l2:#8a3200;--l3:#187452;--ddr:#c209ac;
--compute:#30363d;--accent:#0550ae;--warn:#8a1c1c}}
.roofline{font-family:Helvetica,Arial,"Liberation Sans","DejaVu Sans",sans-serif;font-size:11px;color:var(--ink)}
.roofline text{fill:var(--ink)}
.roofline [hidden]{display:none}
.roofline .background{fill:var(--paper)}
.roofline .plot{fill:var(--plot);stroke:var(--ink-soft)}
.roofline .title{font-size:16px;font-weight:bold}
.roofline .subtitle,.roofline .legend text{font-size:12px}
.roofline .major{stroke:var(--grid)}
.roofline .minor{stroke:var(--grid-minor)}
.roofline .tick line{stroke:var(--ink-soft)}
.roofline .axis-title{font-size:13px}
.roofline .l1{--level:var(--l1)}
.roofline .l2{--level:var(--l2)}
.roofline .l3{--level:var(--l3)}
.roofline .ddr{--level:var(--ddr)}
.roofline .compute,.roofline .memory{--level:var(--compute)}
.roofline .roof-line{stroke:var(--level);stroke-width:2;fill:none}
.roofline .thin .roof-line{stroke-width:1}
.roofline .extra .roof-line{stroke-width:1.25}
.roofline .old .roof-line{stroke-dasharray:2 4}
.roofline .roof-label{font-size:12px;fill:var(--level);stroke:var(--plot);stroke-width:3;paint-order:stroke;
stroke-linejoin:round}
.roofline .region-line{stroke:var(--ink-soft);stroke-dasharray:5 4;stroke-width:1.25}
.roofline .marker,.roofline .edge-arrow{fill:var(--level);stroke:var(--plot);stroke-width:1}
.roofline .hollow{fill:var(--plot);stroke:var(--level);stroke-width:2}
.roofline .region-label,.roofline .region-note{font-size:12px;stroke:var(--plot);stroke-width:3;paint-order:stroke;
stroke-linejoin:round}
.roofline .edge-value{stroke:var(--plot);stroke-width:3;paint-order:stroke}
.roofline .move{stroke:var(--level);stroke-width:1.5;fill:none}
.roofline .note{font-size:12px;fill:var(--ink-soft)}
.roofline .note.warn{fill:var(--warn)}
.roofline .region{cursor:pointer;outline:none}
.roofline .region:focus-visible .region-line{stroke:var(--accent);stroke-width:3;stroke-dasharray:none}
.roofline .region:focus-visible .marker{stroke:var(--accent);stroke-width:3}
.roofline.has-selection .region:not(.selected){opacity:.35}
.roofline .region.selected .region-line{stroke:var(--ink);stroke-width:2}
.roofline .region.filtered{display:none}
.roofline[data-level=l1] .region .l2,.roofline[data-level=l1] .region .l3,.roofline[data-level=l1] .region .ddr,
.roofline[data-level=l2] .region .l1,.roofline[data-level=l2] .region .l3,.roofline[data-level=l2] .region .ddr,
.roofline[data-level=l3] .region .l1,.roofline[data-level=l3] .region .l2,.roofline[data-level=l3] .region .ddr,
.roofline[data-level=ddr] .region .l1,.roofline[data-level=ddr] .region .l2,.roofline[data-level=ddr] .region .l3{
display:none}
)";
}

}  // namespace ceilmeter::view
