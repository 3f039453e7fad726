/** A number of bytes in the largest unit that fits, such as "1.5 GiB". */
export function sizeText(bytes) {
  const units = [["GiB", 2 ** 30], ["MiB", 2 ** 20], ["KiB", 2 ** 10]];
  const [unit, size] = units.find((each) => bytes >= each[1]) ?? units.at(-1);
  const count = bytes / size;
  return `${count.toFixed(count < 100 ? 1 : 0)} ${unit}`;
}
