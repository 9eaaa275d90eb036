// Puts the page together, and keeps it up to date.

import {dashesOf, preferredTheme, setTheme} from "./colors.js";
import {Curves} from "./curves.js";
import {element, shortened, tell} from "./elements.js";
import {exportCsv, exportPng, exportSvg} from "./exporting.js";
import {Plot} from "./plot.js";
import {Runs} from "./runs.js";
import {openSource} from "./source.js";
import {valueText} from "./ticks.js";
import {Tree} from "./tree.js";
import {View} from "./view.js";

const refreshMs = 500;

class Page {
  constructor() {
    this.runs = new Runs(openSource());
    this.view = new View();
    this.curves = new Curves(this.runs, this.view, () => this.paint());
    this.tools = {boxes: false};
    this.plots = new Map();  // by what it shows
    this.place = document.getElementById("plots");
    this.isPainting = false;
  }

  async start() {
    setTheme(preferredTheme());
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
      setTheme(preferredTheme());
      this.rebuild();
    });
    await this.runs.load();
    document.title = `${this.runs.all.map((run) => run.name).join(", ")} – kyr view`;
    this.tree = new Tree(document.getElementById("tree"), document.getElementById("search"),
                         this.runs, this.view);
    this.view.onChange((what) => this.onChange(what));
    this.showTools();
    this.showRuns();
    this.readAddress();
    this.tree.show();
    this.listen();
    if (this.runs.isLive) this.follow();
  }

  listen() {
    new ResizeObserver(() => this.paint()).observe(this.place);
    addEventListener("hashchange", () => {
      if (location.hash.slice(1) !== this.written) this.readAddress();
    });
    addEventListener("keydown", (event) => {
      if (event.key !== "/" || event.target.tagName === "INPUT") return;
      document.getElementById("search").focus();
      event.preventDefault();
    });
    this.place.addEventListener("dragover", (event) => {
      if (event.dataTransfer.types.includes("application/x-kyr")) event.preventDefault();
    });
    this.place.addEventListener("drop", (event) => {
      const text = event.dataTransfer.getData("application/x-kyr");
      if (text) this.view.add(JSON.parse(text));
    });
    const divider = document.getElementById("divider");
    divider.addEventListener("pointerdown", (event) => divider.setPointerCapture(event.pointerId));
    divider.addEventListener("pointermove", (event) => {
      if (!divider.hasPointerCapture(event.pointerId)) return;
      divider.previousElementSibling.style.width = `${Math.min(event.clientX, innerWidth * 0.7)}px`;
    });
  }

  readAddress() {
    const text = location.hash.slice(1);
    if (text && this.view.fromText(text)) {
      this.view.changed("plots");
      return;
    }
    if (text) tell("The address holds no view that this page understands.");
    this.view.follows = this.runs.isLive;
    for (const name of this.runs.all[0]?.open ?? []) {
      this.view.add({name, nth: 0, element: 0});
    }
    this.reset();
    this.view.changed("plots");
  }

  // Not at once: browsers refuse pages that change their address all the time.
  writeAddress() {
    clearTimeout(this.writing);
    this.writing = setTimeout(() => {
      this.written = this.view.toText();
      history.replaceState(null, "", `#${this.written}`);
    }, 300);
  }

  onChange(what) {
    if (what === "plots") this.arrange();
    if (what !== "cursor") this.writeAddress();
    else this.announce();
    this.paint();
  }

  // Tells screen readers what the cursor reads, once it rests.
  announce() {
    clearTimeout(this.announcing);
    this.announcing = setTimeout(() => {
      const {cursor} = this.view;
      const readings = [...this.plots.values()].map((plot) => plot.reading()).filter(Boolean);
      document.getElementById("reading").textContent =
        cursor === null ? "" : `At ${valueText(cursor)} s: ${readings.join(", ")}`;
    }, 500);
  }

  // Makes the plots that are new and removes those that are gone.
  arrange() {
    const kept = new Map();
    for (const model of this.view.plots) {
      const plot = this.plots.get(model) ?? new Plot(model, this);
      plot.showLegend();
      kept.set(model, plot);
    }
    this.plots = kept;
    const roots = [...kept.values()].map((plot) => plot.root);
    const hint = element("p", {className: "empty"},
      "Click a signal to plot it, or drag it into a plot that is there. " +
      "The wheel zooms, dragging moves, Shift and dragging zooms to a box, a double click shows all.");
    const focused = document.activeElement;
    this.place.replaceChildren(...(roots.length ? roots : [hint]));
    if (focused && this.place.contains(focused)) focused.focus();
    this.showRuns();
  }

  rebuild() {
    this.plots.clear();
    this.arrange();
    this.paint();
  }

  paint() {
    if (this.isPainting) return;
    this.isPainting = true;
    requestAnimationFrame(() => {
      this.isPainting = false;
      const plots = [...this.plots.values()];
      this.hasRightAxis = plots.some((plot) => !plot.model.xy &&
                                              plot.curves().some((curve) => curve.axis === 1));
      plots.forEach((plot) => plot.paint());
    });
  }

  reset() {
    this.plots.forEach((plot) => { plot.ranges = null; });
    this.view.setWindow(...this.runs.span());
  }

  showTools() {
    const button = (text, title, onclick) => element(
      "button", {title, "aria-label": title, onclick}, text);
    const toggle = (text, title, isOn, act) => {
      const made = button(text, title, () => made.setAttribute("aria-pressed", act()));
      made.setAttribute("aria-pressed", isOn);
      return made;
    };
    const all = () => [...this.plots.values()];
    const saving = (save) => async () => {
      if (this.plots.size === 0) return tell("There is no plot to save.");
      try {
        return await save(all(), this.view);
      } catch (error) {
        return tell(`Nothing was saved: ${error.message}`);
      }
    };
    this.followButton = toggle("Follow", "Follow the live recording", this.view.follows, () => {
      this.view.follows = !this.view.follows;
      if (this.view.follows) this.toEnd();
      this.writeAddress();
      return this.view.follows;
    });
    document.getElementById("tools").replaceChildren(
      this.followButton,
      toggle("Box", "Dragging zooms to a box (else Shift and dragging)", false,
             () => (this.tools.boxes = !this.tools.boxes)),
      button("−", "Zoom out", () => this.view.zoom(1.6)),
      button("+", "Zoom in", () => this.view.zoom(1 / 1.6)),
      button("All", "Show all times", () => this.reset()),
      button("PNG", "Save the plots as PNG", saving(exportPng)),
      button("SVG", "Save the plots as SVG", saving(exportSvg)),
      button("CSV", "Save the rows of the window as CSV", saving(exportCsv)),
      button("◐", "Light or dark", () => {
        setTheme(document.documentElement.dataset.theme === "dark" ? "light" : "dark");
        this.rebuild();
      }));
  }

  showRuns() {
    const list = this.runs.all.map((run, index) => {
      const box = element("input", {type: "checkbox", checked: !this.view.hidden.has(index),
                                    onchange: () => this.view.toggleRun(index)});
      const line = document.createElementNS("http://www.w3.org/2000/svg", "svg");
      line.setAttribute("width", 26);
      line.setAttribute("height", 6);
      const path = document.createElementNS("http://www.w3.org/2000/svg", "path");
      path.setAttribute("d", "M0 3L26 3");
      path.setAttribute("stroke", "currentColor");
      path.setAttribute("stroke-width", 2);
      path.setAttribute("stroke-dasharray", dashesOf(index).join(" "));
      line.append(path);
      const state = run.state === "finished" ? "" : run.state;
      const label = element("label", {title: run.folder},
        element("span", {className: "name"}, shortened(run.name, 60)),
        element("span", {className: "state"}, state));
      if (this.runs.all.length > 1) label.prepend(box, line);
      return element("li", {}, label);
    });
    document.getElementById("runs").replaceChildren(...list);
    this.followButton.hidden = !this.runs.isLive;
    this.followButton.setAttribute("aria-pressed", this.view.follows);
  }

  // The window keeps its width and ends with the newest row.
  toEnd() {
    const [first, end] = this.runs.span();
    const {from, to} = this.view;
    if (this.hasAll) this.view.setWindow(first, end);
    else this.view.setWindow(end - (to - from), end);
  }

  async follow() {
    for (;;) {
      await new Promise((resolve) => setTimeout(resolve, refreshMs));
      if (document.hidden) continue;
      try {
        await this.lookForNews();
        this.tellFault(this.runs.fault);
      } catch (error) {
        const isGone = error instanceof TypeError;  // of fetch()
        this.tellFault(isGone ? "kyr view does not answer. Was it ended?" : error.message);
      }
      if (!this.runs.isLive) break;
    }
    this.showRuns();
  }

  // Once, while it lasts.
  tellFault(fault) {
    if (fault && fault !== this.fault) tell(fault);
    this.fault = fault;
  }

  async lookForNews() {
    const [first, end] = this.runs.span();
    this.hasAll = this.view.from <= first && this.view.to >= end;
    const news = await this.runs.refresh();
    if (news === "signals") {
      this.tree.show();
      this.arrange();
    }
    if (news && this.view.follows) this.toEnd();
    if (news) this.paint();
  }
}

new Page().start().catch((error) => tell(`The recordings cannot be shown: ${error.message}`));
