// Two ways to paint a plot: on a canvas, and as SVG. Both know lines, dots, boxes and text.

export class CanvasPainter {
  constructor(context) { this.context = context; }

  clip(x, y, width, height) {
    this.context.save();
    this.context.beginPath();
    this.context.rect(x, y, width, height);
    this.context.clip();
  }
  unclip() { this.context.restore(); }

  // Lists of coordinates [x0, y0, x1, y1, ...], one for each piece of the line.
  lines(pieces, color, width, dash = []) {
    const {context} = this;
    context.beginPath();
    for (const piece of pieces) {
      context.moveTo(piece[0], piece[1]);
      for (let i = 2; i < piece.length; i += 2) context.lineTo(piece[i], piece[i + 1]);
      if (piece.length === 2) context.lineTo(piece[0] + 0.01, piece[1]);
    }
    context.strokeStyle = color;
    context.lineWidth = width;
    context.lineJoin = "round";
    context.lineCap = "round";
    context.setLineDash(dash);
    context.stroke();
    context.setLineDash([]);
  }

  // The inside of a line that ends where it begins.
  area(coordinates, color, opacity) {
    const {context} = this;
    context.beginPath();
    for (let i = 0; i < coordinates.length; i += 2) {
      context.lineTo(coordinates[i], coordinates[i + 1]);
    }
    context.globalAlpha = opacity;
    context.fillStyle = color;
    context.fill();
    context.globalAlpha = 1;
  }

  dots(coordinates, color, size) {
    this.context.fillStyle = color;
    for (let i = 0; i < coordinates.length; i += 2) {
      this.context.fillRect(coordinates[i] - size / 2, coordinates[i + 1] - size / 2, size, size);
    }
  }

  box(x, y, width, height, color, opacity = 1) {
    this.context.globalAlpha = opacity;
    this.context.fillStyle = color;
    this.context.fillRect(x, y, width, height);
    this.context.globalAlpha = 1;
  }

  text(x, y, text, color, align = "left", angle = 0, most = undefined) {
    const {context} = this;
    context.save();
    context.translate(x, y);
    context.rotate(angle);
    context.font = "12px system-ui, 'DejaVu Sans', sans-serif";
    context.textAlign = align;
    context.textBaseline = "middle";
    context.fillStyle = color;
    context.fillText(text, 0, 0, most);
    context.restore();
  }
}

function escaped(text) {
  const entities = {"&": "&amp;", "<": "&lt;", ">": "&gt;", "\"": "&quot;", "'": "&#39;"};
  // XML allows no other control characters than these.
  return text.replace(/[\u0000-\u0008\u000b\u000c\u000e-\u001f\ufffe\uffff]/g, "\ufffd")
    .replace(/[&<>"']/g, (character) => entities[character]);
}

const rounded = (number) => Math.round(number * 100) / 100;

export class SvgPainter {
  constructor(width, height) {
    this.width = width;
    this.height = height;
    this.parts = [];
    this.clips = 0;
  }

  clip(x, y, width, height) {
    const id = `clip${this.clips++}`;
    this.parts.push(`<clipPath id="${id}"><rect x="${x}" y="${y}" width="${width}" ` +
                    `height="${height}"/></clipPath><g clip-path="url(#${id})">`);
  }
  unclip() { this.parts.push("</g>"); }

  lines(pieces, color, width, dash = []) {
    const path = pieces.map((piece) => {
      const corners = [];
      for (let i = 0; i < piece.length; i += 2) {
        corners.push(`${rounded(piece[i])} ${rounded(piece[i + 1])}`);
      }
      if (corners.length === 1) corners.push(corners[0]);
      return `M${corners.join("L")}`;
    }).join("");
    if (!path) return;
    const dashes = dash.length ? ` stroke-dasharray="${dash.join(" ")}"` : "";
    this.parts.push(`<path d="${path}" fill="none" stroke="${color}" stroke-width="${width}" ` +
                    `stroke-linejoin="round" stroke-linecap="round"${dashes}/>`);
  }

  area(coordinates, color, opacity) {
    this.parts.push(`<polygon points="${coordinates.map(rounded).join(" ")}" fill="${color}" ` +
                    `fill-opacity="${opacity}"/>`);
  }

  dots(coordinates, color, size) {
    for (let i = 0; i < coordinates.length; i += 2) {
      this.box(coordinates[i] - size / 2, coordinates[i + 1] - size / 2, size, size, color);
    }
  }

  box(x, y, width, height, color, opacity = 1) {
    this.parts.push(`<rect x="${rounded(x)}" y="${rounded(y)}" width="${rounded(width)}" ` +
                    `height="${rounded(height)}" fill="${color}" fill-opacity="${opacity}"/>`);
  }

  text(x, y, text, color, align = "left", angle = 0) {
    const anchor = {left: "start", center: "middle", right: "end"}[align];
    const turn = angle ? ` transform="rotate(${angle * 180 / Math.PI} ${rounded(x)} ${rounded(y)})"` : "";
    this.parts.push(`<text x="${rounded(x)}" y="${rounded(y)}" fill="${color}" font-size="12" ` +
                    `text-anchor="${anchor}" dominant-baseline="central"${turn}>${escaped(text)}</text>`);
  }

  shifted(y, paint) {
    this.parts.push(`<g transform="translate(0 ${y})">`);
    paint(this);
    this.parts.push("</g>");
  }

  result() {
    return `<svg xmlns="http://www.w3.org/2000/svg" width="${this.width}" height="${this.height}" ` +
           `viewBox="0 0 ${this.width} ${this.height}" font-family="system-ui, sans-serif">` +
           `${this.parts.join("\n")}</svg>\n`;
  }
}
