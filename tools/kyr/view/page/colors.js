// Colours that colour-blind people tell apart (Okabe and Ito), darkened or lightened where they
// would be faint. Recordings differ by their dashes, which need no colours at all.

const light = ["#0072b2", "#d55e00", "#00805f", "#b0568a", "#8a6d00", "#2f8fc4", "#5a4fcf",
               "#3d3d3d"];
const dark = ["#56b4e9", "#ff8c42", "#2dd4a4", "#e79ac4", "#f0e442", "#9ad1f5", "#a79bff",
              "#d8d8d8"];
const dashes = [[], [7, 4], [2, 3], [9, 3, 2, 3]];

export function isDark() {
  return document.documentElement.dataset.theme === "dark";
}

export function colorOf(place) {
  const colors = isDark() ? dark : light;
  return colors[place % colors.length];
}

export function dashesOf(run) {
  return dashes[run % dashes.length];
}

export function themeColor(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}

export function setTheme(theme) {
  document.documentElement.dataset.theme = theme;
}

export function preferredTheme() {
  return matchMedia("(prefers-color-scheme: dark)").matches ? "dark" : "light";
}
