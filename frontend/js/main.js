// Entry point of the page.
import { startApp } from './app.js';

startApp(window);
