// The tables: sorting, and the blocks of a region in parts.
"use strict";
ceilview.tables = (() => {
  const { all, data, make, place, dataOf, rows } = ceilview;

  const compare = (a, b) => {
    if (/^\d+$/.test(a) && /^\d+$/.test(b) && a.length > 15) return a.length - b.length || (a < b ? -1 : a > b ? 1 : 0);
    const [first, second] = [parseFloat(a), parseFloat(b)];
    if (/^[\d.-]/.test(a) && /^[\d.-]/.test(b) && first !== second && !isNaN(first - second)) return first - second;
    return a.localeCompare(b, "en", { numeric: true });
  };
  // Unknown figures stay behind, whichever way it is sorted.
  const ordered = (list, key, down) => list.slice().sort((a, b) => {
    const [first, second] = [key(a), key(b)];
    if ((first === "-") !== (second === "-")) return first === "-" ? 1 : -1;
    return down ? compare(second, first) : compare(first, second);
  });
  const cellKey = (at) => (row) => {
    const cell = row.cells[at];
    return cell ? cell.dataset.v || cell.textContent.trim() : "-";
  };

  const makeSortable = (table, sort) => {
    const heads = table.tHead.rows.length > 1 ? [...table.tHead.rows[0].cells].filter((cell) => cell.rowSpan > 1)
      .concat(...table.tHead.rows[1].cells) : [...table.tHead.rows[0].cells];
    heads.forEach((head, at) => {
      const button = make("button", "sort", head.textContent);
      button.type = "button";
      head.replaceChildren(button);
      button.addEventListener("click", () => {
        // A figure is wanted largest first, a name from A on.
        const before = head.getAttribute("aria-sort");
        const down = before === null ? head.classList.contains("number") : before === "ascending";
        for (const other of heads) other.removeAttribute("aria-sort");
        head.setAttribute("aria-sort", down ? "descending" : "ascending");
        sort(at, down);
      });
    });
  };

  const sortRows = (table) => (at, down) => {
    const body = table.tBodies[0];
    body.append(...ordered([...body.rows], cellKey(at), down));
  };

  // The program wrote the hottest blocks; these are all that the page holds, a part at a time.
  const step = 200;
  const makeBlocks = (details) => {
    const about = dataOf(details);
    const modules = data.files[details.dataset.file].modules;
    const table = details.querySelector("table");
    const body = table.tBodies[0];
    const rest = body.querySelector("tr.rest");
    const placeOf = (block) => modules[block[0]] + "+" + block[1];
    const named = about.blocks.some((block) => block.length > 9);
    const cellsOf = (block) => [placeOf(block), ...(named ? [block[9]] : []), ...block.slice(2, 9).map(String),
      ...(named ? [block[10]] : [])];
    let list = about.blocks;
    let order = null;
    let shown = list.length > 20 ? 20 : step;

    const more = make("div", "more");
    const label = make("label", "", "Blocks with ");
    const input = place(make("input"), { type: "search", placeholder: named ? "module or function" : "module" });
    const button = make("button", "", "");
    const told = make("span", "hint");
    button.type = "button";
    label.append(input);
    more.append(label, button, told);
    details.querySelector(".scroll").after(more);

    const rowOf = (block) => {
      const row = make("tr");
      cellsOf(block).forEach((words, at) => {
        const cell = make(at === 0 ? "th" : "td", at > (named ? 1 : 0) && at < (named ? 9 : 8) ? "number" : "");
        if (at === 0) {
          cell.scope = "row";
          cell.append(make("code", "", words));
        } else {
          cell.textContent = words;
          if (at > 8) cell.className = "code";
        }
        row.append(cell);
      });
      return row;
    };
    const fill = () => {
      const part = input.value.toLowerCase();
      list = about.blocks.filter((block) => (placeOf(block) + " " + (block[9] || "")).toLowerCase().includes(part));
      if (order) list = ordered(list, (block) => cellsOf(block)[order.at], order.down);
      body.replaceChildren(...list.slice(0, shown).map(rowOf));
      if (rest) {
        const [blocks, executions, operations] = about.rest || [];
        if (blocks && part === "" && shown >= list.length) body.append(restRow(blocks, executions, operations));
      }
      const hidden = Math.max(0, list.length - shown);
      told.textContent = Math.min(shown, list.length) + " of " + list.length;
      button.textContent = Math.min(step, hidden) + " more";
      button.hidden = hidden === 0;
    };
    const restRow = (blocks, executions, operations) => {
      const row = rest.cloneNode(true);
      row.cells[0].textContent = "and " + blocks + " more blocks, not in this page";
      row.cells[named ? 2 : 1].textContent = executions;
      row.cells[named ? 4 : 3].textContent = operations;
      return row;
    };
    makeSortable(table, (at, down) => {
      order = { at, down };
      fill();
    });
    input.addEventListener("input", fill);
    button.addEventListener("click", () => {
      shown += step;
      fill();
    });
    fill();
  };

  // `select` is called with the name of a region whose row was chosen.
  const start = (select) => {
    for (const row of rows()) {
      const head = row.querySelector("th");
      const button = place(make("button", "pick", head.textContent), { type: "button", "aria-pressed": "false" });
      head.replaceChildren(button);
      button.addEventListener("click", () => select(dataOf(row).name));
    }
    for (const table of all("main table")) {
      if (table.closest("#blocks details") && table.id.startsWith("table-blocks")) continue;
      makeSortable(table, sortRows(table));
    }
    for (const details of all("#blocks details")) {
      let ready = false;
      const prepare = () => {
        if (details.open && !ready) {
          ready = true;
          makeBlocks(details);
        }
      };
      details.addEventListener("toggle", prepare);
      prepare();
    }
  };

  return { start };
})();
