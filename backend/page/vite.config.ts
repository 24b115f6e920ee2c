import { defineConfig } from "vite";

export default defineConfig({
  base: "./",
  esbuild: { jsx: "automatic", jsxImportSource: "preact" },
  build: {
    target: "es2022",
    modulePreload: { polyfill: false },
    // Nothing inline: the content security policy of the server allows data addresses for images only.
    assetsInlineLimit: (file) => file.endsWith(".png"),
    reportCompressedSize: true,
  },
  // A backend of `make run` answers what `npm run dev` asks.
  server: { proxy: { "/api": "http://127.0.0.1:8642" } },
});
