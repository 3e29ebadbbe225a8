// Shows the times, which come in UTC, in the reader's own time zone. The page works without it.
'use strict';
const two = (number) => String(number).padStart(2, '0');
for (const element of document.querySelectorAll('time')) {
  const time = new Date(element.dateTime);
  if (Number.isNaN(time.getTime())) continue;
  const day = [String(time.getFullYear()).padStart(4, '0'), two(time.getMonth() + 1), two(time.getDate())];
  element.textContent = `${day.join('-')} ${two(time.getHours())}:${two(time.getMinutes())}`;
  element.title = element.dateTime;
}
for (const element of document.querySelectorAll('.zone')) element.remove();
