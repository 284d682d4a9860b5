// Finds pages by name, and shows a name on its page. NAMES is [[name, page]...].
const box = document.getElementById('search'), list = document.getElementById('found');

function matches(text) {
    const words = text.toLowerCase().split(/\s+/).filter(word => word);
    const rank = name => name === words[0] ? 0 : name.startsWith(words[0]) ? 1 : 2;
    return NAMES.map(([name, page]) => ({ name, page, lower: name.toLowerCase() }))
        .filter(({ lower }) => words.length && words.every(word => lower.includes(word)))
        .sort((a, b) => rank(a.lower) - rank(b.lower) || a.name.length - b.name.length).slice(0, 12);
}

box.addEventListener('input', () => list.replaceChildren(...matches(box.value).map(({ name, page }) => {
    const item = document.createElement('li'), link = document.createElement('a');
    link.href = box.dataset.root + page;
    link.textContent = name;
    item.append(link);
    return item;
})));
document.addEventListener('keydown', event => {
    const links = [...list.querySelectorAll('a')], at = links.indexOf(document.activeElement);
    const go = link => (event.preventDefault(), link?.focus());
    if (event.key === '/' && document.activeElement !== box) go(box);
    else if (event.key === 'Enter' && document.activeElement === box) links[0]?.click();
    else if (event.key === 'ArrowDown' && (at >= 0 || document.activeElement === box)) go(links[at + 1]);
    else if (event.key === 'ArrowUp' && at >= 0) go(links[at - 1] ?? box);
    else if (event.key === 'Escape') list.replaceChildren();
});

// Manual pages have no marks for names: the first place where one is explained is shown, else the first.
function show() {
    const name = decodeURIComponent(location.hash.slice(1));
    list.replaceChildren();
    document.querySelector('mark')?.replaceWith(name && document.querySelector('mark').textContent);
    if (!/^\w+$/.test(name) || document.getElementById(name)) return;
    for (const place of document.querySelectorAll('dt, pre, main')) {
        const walker = document.createTreeWalker(place, NodeFilter.SHOW_TEXT);
        for (let node; (node = walker.nextNode());) {
            const at = node.data.search(new RegExp(`\\b${name}\\b`));
            if (at < 0) continue;
            const range = document.createRange(), mark = document.createElement('mark');
            range.setStart(node, at);
            range.setEnd(node, at + name.length);
            range.surroundContents(mark);
            mark.scrollIntoView({ block: 'center' });
            return;
        }
    }
}
addEventListener('hashchange', show);
show();
