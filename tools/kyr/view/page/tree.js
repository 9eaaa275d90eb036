// The tree of signals: names with dots or slashes make levels, which are filled when they open.

import {element, shortened, withSuffix} from "./elements.js";

const mostShown = 500;

// {children: Map, leaves: []} of signals [{name, nth, found}].
function levelsOf(signals) {
  const root = {children: new Map(), leaves: [], count: 0};
  for (const signal of signals) {
    const parts = signal.name.split(/[./]/).filter(Boolean).slice(0, 20);
    let level = root;
    for (const part of parts.slice(0, -1)) {
      if (!level.children.has(part)) {
        level.children.set(part, {children: new Map(), leaves: [], count: 0});
      }
      level = level.children.get(part);
      ++level.count;
    }
    level.leaves.push([parts[parts.length - 1] ?? signal.name, signal]);
  }
  return root;
}

export class Tree {
  constructor(place, search, runs, view) {
    this.place = place;
    this.search = search;
    this.runs = runs;
    this.view = view;
    search.addEventListener("input", () => this.show());
    search.addEventListener("keydown", (event) => {
      if (event.key === "ArrowDown") this.focusOn(0, event);
    });
    place.addEventListener("keydown", (event) => this.onKey(event));
    view.onChange((what) => { if (what === "plots") this.mark(); });
  }

  show() {
    const words = this.search.value.toLowerCase().split(/\s+/).filter(Boolean);
    const all = this.runs.signals;
    if (words.length === 0) {
      this.fill(this.place, levelsOf(all), all.length <= 40);
    } else {
      const fits = ({name, found}) => {
        const text = `${name} ${found[0][1].unit} ${found[0][1].description}`.toLowerCase();
        return words.every((word) => text.includes(word));
      };
      const found = all.filter(fits);
      this.place.replaceChildren(...found.slice(0, mostShown).map(
        (signal) => this.leaf(signal.name, signal)));
      this.note(this.place, found.length === 0 ? "No signal has all of these words." : "",
                found.length);
    }
    if (all.length === 0) this.note(this.place, "There are no signals yet.", 0);
  }

  note(place, text, count) {
    const more = count > mostShown ? `${count - mostShown} more: search for them.` : text;
    if (more) place.append(element("p", {className: "note"}, more));
  }

  fill(place, level, isOpen) {
    place.replaceChildren();
    let shown = 0;
    for (const [name, child] of level.children) {
      if (shown++ >= mostShown) break;
      const inside = element("div");
      const folder = element("details", {}, element("summary", {title: shortened(name)},
        shortened(name, 80), element("span", {className: "state"}, `  ${child.count}`)), inside);
      folder.addEventListener("toggle", () => {
        if (folder.open && !inside.hasChildNodes()) this.fill(inside, child, false);
      });
      if (isOpen) {
        this.fill(inside, child, true);
        folder.open = true;
      }
      place.append(folder);
    }
    for (const [name, signal] of level.leaves) {
      if (shown++ >= mostShown) break;
      place.append(this.leaf(name, signal));
    }
    this.note(place, "", level.children.size + level.leaves.length);
  }

  leaf(label, signal) {
    const [, info] = signal.found[0];
    const runs = signal.found.length > 1 ? ` · in ${signal.found.length} recordings` : "";
    const shape = info.elements === 1 ? "" : info.dimensions.length
      ? ` ${info.dimensions.join("×")}` : ` ${info.category}`;
    const title = `${signal.name}\n${info.description}\n${info.type}${shape}, ${info.rows} rows${runs}` +
                  (info.fault ? `\n${info.fault}` : "");
    const button = element("button", {className: "leaf", title: shortened(title, 600),
      draggable: true, onclick: () => this.toggle(signal)},
      element("span", {className: "name"}, shortened(label || "(no name)", 120)),
      element("span", {className: "unit"}, shortened(info.unit, 12)),
      element("span", {className: "size"}, withSuffix(info.rows) + shape));
    button.series = {name: signal.name, nth: signal.nth, element: 0};
    button.classList.toggle("fault", Boolean(info.fault));
    button.addEventListener("dragstart", (event) => {
      event.dataTransfer.setData("application/x-kyr", JSON.stringify(button.series));
      event.dataTransfer.effectAllowed = "copy";
    });
    this.markOne(button);
    return button;
  }

  // A click adds a signal in a plot of its own, or removes it.
  toggle({name, nth}) {
    const series = {name, nth, element: 0};
    const plot = this.view.plots.find((each) => each.series.some(
      (other) => other.name === name && other.nth === nth));
    if (plot) this.view.remove(plot.series.find((each) => each.name === name && each.nth === nth), plot);
    else this.view.add(series);
  }

  mark() {
    this.place.querySelectorAll(".leaf").forEach((button) => this.markOne(button));
  }

  markOne(button) {
    const isShown = this.view.shows(button.series);
    button.classList.toggle("shown", isShown);
    button.setAttribute("aria-pressed", isShown);
  }

  // Arrow keys go through what is visible.
  onKey(event) {
    const step = {ArrowDown: 1, ArrowUp: -1}[event.key];
    if (!step) return;
    const place = this.visible().indexOf(document.activeElement);
    if (place + step < 0) this.search.focus();
    else this.focusOn(place + step, event);
  }

  visible() {
    return [...this.place.querySelectorAll("summary, .leaf")].filter((each) => each.offsetParent);
  }

  focusOn(place, event) {
    const all = this.visible();
    all[Math.min(place, all.length - 1)]?.focus();
    event.preventDefault();
  }
}
