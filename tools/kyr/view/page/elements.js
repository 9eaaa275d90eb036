// Makes elements of the page. Text is set as text and never parsed, whatever a name contains.

export function element(tag, properties = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name.startsWith("on")) made.addEventListener(name.slice(2), value);
    else if (name in made) made[name] = value;
    else made.setAttribute(name, value);
  }
  made.append(...children);
  return made;
}

export function shortened(text, most = 200) {
  return text.length > most ? text.slice(0, most) + "…" : text;
}

export function withSuffix(number) {
  for (const [size, suffix] of [[1e9, "G"], [1e6, "M"], [1e3, "k"]]) {
    if (number >= size) return (number / size).toPrecision(3) + suffix;
  }
  return String(number);
}

let hiding = 0;

// Tells the user something for a few seconds.
export function tell(text) {
  const place = document.getElementById("message");
  place.textContent = shortened(text, 300);
  place.classList.add("shown");
  clearTimeout(hiding);
  hiding = setTimeout(() => place.classList.remove("shown"), 5000);
}

export function download(name, blob) {
  const link = element("a", {href: URL.createObjectURL(blob), download: name});
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 10000);
}
